# SPDX-License-Identifier: Apache-2.0
# An example toolchain file: building omsdk for a 64-bit ARM Linux device
# with Debian's cross compiler (packages gcc-aarch64-linux-gnu,
# g++-aarch64-linux-gnu) and the device's libraries in a sysroot.
#
#   cmake -S . -B build-arm64 -G Ninja \
#     -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/aarch64-linux-gnu.cmake \
#     -DOMSDK_SYSROOT=/path/to/sysroot \
#     -DOMSDK_BUILD_TESTS=OFF -DOMSDK_BUILD_BENCH=OFF
#   cmake --build build-arm64
#
# The sysroot holds the target's headers and libraries: at least libc,
# OpenSSL's libcrypto and libuuid with their headers (on Debian:
# dpkg --add-architecture arm64 and libssl-dev:arm64 uuid-dev:arm64 give a
# multiarch system whose / serves as sysroot). Copy this file for another
# target and change the triplet and the processor.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(triplet aarch64-linux-gnu)
set(CMAKE_C_COMPILER ${triplet}-gcc)
set(CMAKE_CXX_COMPILER ${triplet}-g++)

set(OMSDK_SYSROOT "" CACHE PATH "The target's root file system (empty: this host, multiarch)")
if(OMSDK_SYSROOT)
  set(CMAKE_SYSROOT ${OMSDK_SYSROOT})
  set(CMAKE_FIND_ROOT_PATH ${OMSDK_SYSROOT})
else()
  set(CMAKE_FIND_ROOT_PATH / /usr/${triplet})
endif()
# Libraries and headers come from the target, programs from the host.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# Debian's multiarch layout keeps the target's libraries in lib/<triplet>.
set(CMAKE_LIBRARY_ARCHITECTURE ${triplet})
