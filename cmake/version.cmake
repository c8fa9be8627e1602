# SPDX-License-Identifier: Apache-2.0
# The compile-time version macros come from project(VERSION), the one place
# a release bumps. The generated header sits in the build tree, ahead of the
# source headers for every target, and is installed beside them.
foreach(part MAJOR MINOR PATCH)
  if(PROJECT_VERSION_${part} GREATER 255)
    message(FATAL_ERROR "omsdk/version.h packs each version part in 8 bits")
  endif()
endforeach()
configure_file(${PROJECT_SOURCE_DIR}/include/omsdk/version.h.in
  ${PROJECT_BINARY_DIR}/include/omsdk/version.h @ONLY)
include_directories(BEFORE ${PROJECT_BINARY_DIR}/include)
