#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# The Debian packages of a build tree: builds them with cpack, checks their
# metadata, dependencies and file lists, runs lintian when present (reported,
# not judged), unpacks them into a scratch root and builds and runs the
# README's example against that root through pkg-config. As root, with
# OMSDK_PACKAGE_INSTALL_TEST=1 or CI=true, it also installs them with dpkg,
# runs the example on the installed library and removes them again (purged:
# the library's postrm would otherwise leave a config-files record).
# Usage: packages.sh BUILD_DIR SOURCE_DIR LIBDIR C_COMPILER VERSION
set -eu
build=$1; src=$2; libdir=$3; cc=$4; version=$5
command -v dpkg-deb >/dev/null 2>&1 || { echo "packages: no dpkg-deb, nothing to check"; exit 77; }

work=$(mktemp -d)
installed=""
cleanup() {
  # shellcheck disable=SC2086
  [ -z "$installed" ] || dpkg_retry -P $installed >/dev/null 2>&1 || :
  rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "packages: $*" >&2; exit 1; }

# dpkg waits for no lock of its own: retry for at most 60 s.
dpkg_retry() {
  n=30
  while :; do
    out=$(dpkg "$@" 2>&1) && { printf '%s\n' "$out"; return 0; }
    n=$((n - 1))
    if [ "$n" -le 0 ] || ! printf '%s' "$out" | grep -qi 'lock'; then
      printf '%s\n' "$out" >&2
      return 1
    fi
    sleep 2
  done
}

started=$(date +%s)
if command -v doxygen >/dev/null 2>&1; then
  cmake --build "$build" --target docs >/dev/null
fi
cpack --config "$build/CPackConfig.cmake" -G DEB -B "$work/pkg" >"$work/cpack.log" 2>&1 ||
  { cat "$work/cpack.log"; fail "cpack failed"; }
arch=$(dpkg --print-architecture)
lib=$work/pkg/libomsdk0_${version}_$arch.deb
dev=$work/pkg/libomsdk-dev_${version}_$arch.deb
tools=$work/pkg/omsdk-tools_${version}_$arch.deb
for deb in "$lib" "$dev" "$tools"; do [ -f "$deb" ] || fail "$(basename "$deb") not built"; done

echo "== metadata"
# field DEB VALUE-REGEX: the control field matches (grep -E, whole value).
field() {
  value=$(dpkg-deb -f "$2" "$1")
  printf '%s\n' "$value" | grep -Eqx -- "$3" ||
    fail "$(basename "$2"): $1 is '$value', expected /$3/"
}
for row in "$lib libomsdk0 libs" "$dev libomsdk-dev libdevel" "$tools omsdk-tools net"; do
  set -- $row
  field Package "$1" "$2"
  field Section "$1" "$3"
  field Version "$1" "$version"
  field Architecture "$1" "$arch"
  field Maintainer "$1" '.+ <[^@ ]+@[^> ]+>'
  field Priority "$1" optional
  dpkg-deb -f "$1" Description | sed -n 2p | grep -q . || fail "$2: no long description"
done
# Run-time dependencies, as dpkg-shlibdeps finds them: one a comma.
depends() {
  dpkg-deb -f "$1" Depends | tr ',' '\n' | sed 's/^ *//; s/ (.*//' | sort -u | tr '\n' ' '
}
for want in libc6 libssl3 libuuid1; do
  case " $(depends "$lib")" in *" $want "*) ;; *) fail "libomsdk0 does not depend on $want: $(depends "$lib")" ;; esac
done
case " $(depends "$lib")" in *" libstdc++"*) fail "libomsdk0 depends on the C++ runtime" ;; esac
for deb in "$dev" "$tools"; do
  dpkg-deb -f "$deb" Depends | grep -q "libomsdk0 (= $version)" ||
    fail "$(basename "$deb") does not depend on libomsdk0 (= $version)"
done
dpkg-deb -f "$tools" Depends | grep -q "libc6" || fail "omsdk-tools: no libc6 dependency"
dpkg-deb --ctrl-tarfile "$lib" | tar -t | grep -q 'shlibs$' || fail "libomsdk0 has no shlibs file"

echo "== file lists"
for deb in "$lib" "$dev" "$tools"; do
  # files and links, not directories
  dpkg-deb -c "$deb" | awk '$1 !~ /^d/ {print $6}' | sed 's|^\./|/|' | sort >"$deb.files"
done
# has DEB PATH...: each path is in the package.
has() {
  deb=$1; shift
  for p in "$@"; do grep -qx "$p" "$deb.files" || fail "$(basename "$deb") lacks $p"; done
}
has "$lib" "/usr/$libdir/libomsdk.so.0" "/usr/$libdir/libomsdk.so.$version" \
  /usr/share/doc/libomsdk0/copyright /usr/share/doc/libomsdk0/changelog.gz
has "$dev" /usr/include/omsdk.h /usr/include/omsdk/version.h /usr/include/omsdk/log.h \
  "/usr/$libdir/libomsdk.so" "/usr/$libdir/pkgconfig/omsdk.pc" \
  "/usr/$libdir/cmake/omsdk/omsdkConfig.cmake" "/usr/$libdir/cmake/omsdk/omsdkTargets.cmake" \
  /usr/share/man/man3/libomsdk.3.gz /usr/share/doc/libomsdk-dev/copyright
has "$tools" /usr/bin/omsdk-switch /usr/bin/omsdk-endpoint \
  /usr/share/man/man1/omsdk-switch.1.gz /usr/share/man/man1/omsdk-endpoint.1.gz \
  /usr/share/doc/omsdk-tools/copyright
# The run-time package holds no development file, and no file is in two packages.
grep -E '\.h$|\.pc$|\.a$|\.cmake$|/libomsdk\.so$' "$lib.files" && fail "development files in libomsdk0"
dup=$(sort "$lib.files" "$dev.files" "$tools.files" | uniq -d)
[ -z "$dup" ] || fail "files in two packages: $dup"

# lintian is slow: it runs beside the rest and reports at the end.
lintian_pid=""
if command -v lintian >/dev/null 2>&1; then
  timeout 120 lintian --tag-display-limit 0 "$lib" "$dev" "$tools" >"$work/lintian.log" 2>&1 &
  lintian_pid=$!
fi

echo "== the example against the unpacked packages"
root=$work/root
for deb in "$lib" "$dev" "$tools"; do dpkg-deb -x "$deb" "$root"; done
# The .pc file finds its prefix from its own place, so no sysroot is set.
export PKG_CONFIG_LIBDIR="$root/usr/$libdir/pkgconfig"
[ "$(pkg-config --modversion omsdk)" = "$version" ] || fail "omsdk.pc gives another version"
incdir=$(pkg-config --cflags-only-I omsdk | sed 's/^ *-I//; s/ *$//')
case "$(cd "$incdir" && pwd -P)" in
  "$(cd "$root" && pwd -P)"/usr/include) ;;
  *) fail "omsdk.pc's include folder is not the root's: $incdir" ;;
esac
# shellcheck disable=SC2046
"$cc" -std=c99 -Wall -Wextra -Wpedantic -Werror $(pkg-config --cflags omsdk) \
  "$src/examples/minimal.c" -o "$work/minimal" $(pkg-config --libs omsdk) -pthread
run_minimal() {
  out=$(timeout 30 "$work/minimal") || fail "minimal failed: $out"
  printf '%s\n' "$out" | grep -qx 'done' || fail "minimal: unexpected output: $out"
  # the same file, whatever the path (/lib is /usr/lib on a merged /usr)
  loaded=$(ldd "$work/minimal" | awk '/libomsdk\.so\.0/ {print $3}')
  [ -n "$loaded" ] && [ "$(readlink -f "$loaded")" = "$(readlink -f "$1/libomsdk.so.0")" ] ||
    fail "minimal loaded '$loaded', not $1/libomsdk.so.0"
}
LD_LIBRARY_PATH="$root/usr/$libdir" run_minimal "$root/usr/$libdir"
LD_LIBRARY_PATH="$root/usr/$libdir" "$root/usr/bin/omsdk-switch" --help | grep -q '^usage: omsdk-switch' ||
  fail "the packaged omsdk-switch does not run"
unset PKG_CONFIG_LIBDIR

if [ "$(id -u)" = 0 ] && { [ "${OMSDK_PACKAGE_INSTALL_TEST:-}" = 1 ] || [ "${CI:-}" = true ]; }; then
  echo "== dpkg -i, the example on the installed library, dpkg -P"
  if dpkg-query -W libomsdk0 >/dev/null 2>&1; then
    echo "packages: libomsdk0 is installed already; not touching it"
  else
    installed="omsdk-tools libomsdk-dev libomsdk0"
    dpkg_retry -i "$lib" "$dev" "$tools" >/dev/null
    # shellcheck disable=SC2046
    "$cc" -std=c99 $(pkg-config --cflags omsdk) "$src/examples/minimal.c" -o "$work/minimal" \
      $(pkg-config --libs omsdk) -pthread
    (unset LD_LIBRARY_PATH; run_minimal "/usr/$libdir")
    man -w omsdk-switch >/dev/null 2>&1 || [ ! -x /usr/bin/man ] || fail "man omsdk-switch not found"
    # shellcheck disable=SC2086
    dpkg_retry -P $installed >/dev/null
    installed=""
    for p in libomsdk0 libomsdk-dev omsdk-tools; do
      ! dpkg-query -W "$p" >/dev/null 2>&1 || fail "$p still known to dpkg after dpkg -P"
    done
  fi
fi
if [ -n "$lintian_pid" ]; then
  echo "== lintian (reported, not judged)"
  wait "$lintian_pid" || :
  grep -v 'root privileges' "$work/lintian.log" || echo "lintian: no tags"
fi
echo "packages ok ($(($(date +%s) - started)) s)"
