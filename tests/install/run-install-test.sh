#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Installs the build tree into a temporary prefix, then builds and runs the
# README's C99 example (examples/minimal.c) against it through pkg-config and
# through find_package, builds and runs the test kit's smallest example through
# pkg-config, and compile-checks every installed public header as
# C99 and as C++.
# Usage: run-install-test.sh BUILD_DIR SOURCE_DIR LIBDIR C_COMPILER CXX_COMPILER
set -eu
build=$1; src=$2; libdir=$3; cc=$4; cxx=$5

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

cmake --install "$build" --prefix "$prefix" >/dev/null
lib=$prefix/$libdir
export LD_LIBRARY_PATH="$lib"

check_output() {
  out=$(timeout 30 "$1")
  echo "$out" | grep -qx 'status 0' || { echo "$1: unexpected output: $out"; exit 1; }
  echo "$out" | grep -qx 'done' || { echo "$1: unexpected output: $out"; exit 1; }
  # it must have loaded the installed library
  ldd "$1" | grep -q "$lib/libomsdk.so.0" || { echo "$1 does not use $lib"; exit 1; }
}

echo "== pkg-config"
export PKG_CONFIG_PATH="$lib/pkgconfig"
[ "$(pkg-config --modversion omsdk)" = "2.1.0" ] || { echo "bad omsdk.pc version"; exit 1; }
# shellcheck disable=SC2046
"$cc" -std=c99 -Wall -Wextra -Wpedantic -Werror $(pkg-config --cflags omsdk) \
  "$src/examples/minimal.c" -o "$work/consumer-pc" $(pkg-config --libs omsdk) -pthread
check_output "$work/consumer-pc"

echo "== find_package"
cmake -S "$src/tests/install/consumer" -B "$work/cm" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_C_COMPILER="$cc" >/dev/null
cmake --build "$work/cm" >/dev/null
check_output "$work/cm/consumer"

echo "== the test kit, through pkg-config"
[ "$(pkg-config --modversion omsdk-testkit)" = "2.1.0" ] || { echo "bad omsdk-testkit.pc version"; exit 1; }
# shellcheck disable=SC2046
"$cc" -std=c99 -Wall -Wextra -Wpedantic -Werror $(pkg-config --cflags omsdk-testkit) \
  "$src/examples/testkit/smallest_test.c" -o "$work/kit-consumer" $(pkg-config --libs omsdk-testkit)
out=$(timeout 30 "$work/kit-consumer") || { echo "kit consumer failed: $out"; exit 1; }
echo "$out" | grep -qx passed || { echo "kit consumer: unexpected output: $out"; exit 1; }
ldd "$work/kit-consumer" | grep -q "$lib/libomsdk-testkit.so.0" || { echo "kit consumer does not use $lib"; exit 1; }

echo "== public headers, C99 and C++"
for h in "$prefix"/include/omsdk.h "$prefix"/include/omsdk/*.h; do
  name=${h#"$prefix/include/"}
  # twice (include guards), and a declaration: a header of macros alone
  # would leave an empty translation unit
  printf '#include <%s>\n#include <%s>\ntypedef int header_check;\n' "$name" "$name" > "$work/h.c"
  "$cc" -std=c99 -Wall -Wextra -Wpedantic -Werror -fsyntax-only -I"$prefix/include" "$work/h.c" ||
    { echo "$name fails as C99"; exit 1; }
  cp "$work/h.c" "$work/h.cpp"
  "$cxx" -std=c++17 -Wall -Wextra -Wpedantic -Werror -fsyntax-only -I"$prefix/include" "$work/h.cpp" ||
    { echo "$name fails as C++"; exit 1; }
done
echo "install test passed"
