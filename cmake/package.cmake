# SPDX-License-Identifier: Apache-2.0
# Installation of the programs, man pages and documentation, and the Debian
# packages built from the install components by `cpack -G DEB`:
#   lib   -> libomsdk0     the shared library
#   dev   -> libomsdk-dev  headers, libomsdk.so link, pkg-config, CMake
#                          package, libomsdk.a when built, API docs, libomsdk(3)
#   tools -> omsdk-tools   omsdk-switch, omsdk-endpoint and their man pages

set(OMSDK_DEB_LIB libomsdk0)
set(OMSDK_DEB_DEV libomsdk-dev)
set(OMSDK_DEB_TOOLS omsdk-tools)

# Programs. Installed binaries carry no build-tree run path.
foreach(prog omsdk-switch omsdk-endpoint)
  if(TARGET ${prog})
    install(TARGETS ${prog} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
  endif()
endforeach()

# Man pages, compressed as Debian wants them (reproducibly: no name, no
# time): section 1 with the programs, section 3 with the headers.
set(OMSDK_MAN_PAGES libomsdk.3)
if(OMSDK_BUILD_TOOLS)
  list(APPEND OMSDK_MAN_PAGES omsdk-switch.1 omsdk-endpoint.1)
endif()
set(OMSDK_GENERATED_DOCS)
foreach(page IN LISTS OMSDK_MAN_PAGES)
  set(gz ${PROJECT_BINARY_DIR}/man/${page}.gz)
  add_custom_command(OUTPUT ${gz}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${PROJECT_BINARY_DIR}/man
    COMMAND gzip -9 -n -c ${PROJECT_SOURCE_DIR}/docs/man/${page} > ${gz}
    DEPENDS ${PROJECT_SOURCE_DIR}/docs/man/${page})
  list(APPEND OMSDK_GENERATED_DOCS ${gz})
  string(REGEX REPLACE ".*\\.([0-9])$" "\\1" section ${page})
  set(component tools)
  if(section STREQUAL "3")
    set(component dev)
  endif()
  install(FILES ${gz} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section} COMPONENT ${component})
endforeach()

# Each package carries the licence and the history under its own doc folder.
foreach(c lib dev tools)
  string(TOUPPER ${c} C)
  install(FILES ${PROJECT_BINARY_DIR}/debian-copyright
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${OMSDK_DEB_${C}} RENAME copyright COMPONENT ${c})
  install(FILES ${PROJECT_BINARY_DIR}/changelog.gz
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${OMSDK_DEB_${C}} COMPONENT ${c})
endforeach()
file(WRITE ${PROJECT_BINARY_DIR}/debian-copyright
  "Format: https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/\n"
  "Upstream-Name: omsdk\n\n"
  "Files: *\nCopyright: 2026 The omsdk authors\nLicense: Apache-2.0\n\n"
  "License: Apache-2.0\n On Debian systems the full text of the licence is in\n"
  " /usr/share/common-licenses/Apache-2.0.\n")
# The packages are native (no Debian revision), so their changelog.gz is in
# Debian's changelog format: one entry for this version that carries the
# project's CHANGELOG.md. Compressed without a name or time stamp.
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/CHANGELOG.md)
file(READ ${PROJECT_SOURCE_DIR}/CHANGELOG.md OMSDK_HISTORY)
string(REGEX REPLACE "\n+$" "" OMSDK_HISTORY "${OMSDK_HISTORY}")
string(REGEX REPLACE "\n" "\n  " OMSDK_HISTORY "  ${OMSDK_HISTORY}")
string(REGEX REPLACE "\n  \n" "\n\n" OMSDK_HISTORY "${OMSDK_HISTORY}")
string(TIMESTAMP OMSDK_DEB_DATE "%a, %d %b %Y %H:%M:%S +0000" UTC)
set(OMSDK_DEB_MAINTAINER "omsdk maintainers <omsdk@example.invalid>")
file(WRITE ${PROJECT_BINARY_DIR}/changelog.Debian
  "omsdk (${PROJECT_VERSION}) unstable; urgency=medium\n\n"
  "  * Release ${PROJECT_VERSION}. The project's history follows.\n\n"
  "${OMSDK_HISTORY}\n\n"
  " -- ${OMSDK_DEB_MAINTAINER}  ${OMSDK_DEB_DATE}\n")
set(changelog ${PROJECT_BINARY_DIR}/changelog.gz)
add_custom_command(OUTPUT ${changelog}
  COMMAND gzip -9 -n -c ${PROJECT_BINARY_DIR}/changelog.Debian > ${changelog}
  DEPENDS ${PROJECT_BINARY_DIR}/changelog.Debian)
add_custom_target(omsdk_packaged_docs ALL DEPENDS ${changelog} ${OMSDK_GENERATED_DOCS})

# API documentation (HTML), when Doxygen is present: `cmake --build <dir>
# --target docs`, or scripts/check-docs, writes <dir>/docs/html; an install
# takes it when it is there.
find_program(DOXYGEN_EXECUTABLE doxygen)
if(DOXYGEN_EXECUTABLE)
  add_custom_target(docs
    COMMAND ${CMAKE_COMMAND} -E env OMSDK_DOCS_OUTPUT=${PROJECT_BINARY_DIR}/docs
            OMSDK_DOCS_VERSION=${PROJECT_VERSION}
            OMSDK_DOCS_GENERATED=${PROJECT_BINARY_DIR}/include
            ${DOXYGEN_EXECUTABLE} ${PROJECT_SOURCE_DIR}/docs/Doxyfile
    WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
    COMMENT "API documentation into ${PROJECT_BINARY_DIR}/docs/html")
endif()
install(DIRECTORY ${PROJECT_BINARY_DIR}/docs/html/
  DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${OMSDK_DEB_DEV}/html COMPONENT dev OPTIONAL)

# ---- CPack: Debian packages, one per component ----
set(CPACK_PACKAGE_NAME omsdk)
set(CPACK_PACKAGE_VENDOR "The omsdk authors")
set(CPACK_PACKAGE_CONTACT "${OMSDK_DEB_MAINTAINER}")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
# No CPACK_PACKAGE_DESCRIPTION_SUMMARY: CPack would put it above each
# component's description, whose first line is the synopsis already.
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
set(CPACK_GENERATOR DEB)
set(CPACK_COMPONENTS_ALL lib dev)
if(OMSDK_BUILD_TOOLS)
  list(APPEND CPACK_COMPONENTS_ALL tools)
endif()
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${CPACK_PACKAGE_CONTACT}")
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# Run-time dependencies (libc6, libssl3, libuuid1, libstdc++6 for the tools)
# come from dpkg-shlibdeps; libomsdk0 records its shlibs so that packages
# built against it depend on it in turn.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS OFF)
# Debug information stays in the build tree.
set(CPACK_STRIP_FILES ON)

set(OMSDK_DEB_EXACT "(= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_LIB_PACKAGE_NAME ${OMSDK_DEB_LIB})
set(CPACK_DEBIAN_LIB_PACKAGE_SECTION libs)
# dpkg runs ldconfig once per transaction through this trigger.
file(WRITE ${PROJECT_BINARY_DIR}/deb-lib/triggers "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_LIB_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/deb-lib/triggers)
set(CPACK_COMPONENT_LIB_DESCRIPTION
  "managed-endpoint library for Ohmara power-management domains\nlibomsdk makes a networked device a managed endpoint of a power-management\ndomain: it announces the device by UDP broadcast, completes a nonce\nhandshake with its parent switch, answers GET and SET queries over TCP and\nsigns every message with HMAC-SHA1. This package holds the shared library.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME ${OMSDK_DEB_DEV})
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "${OMSDK_DEB_LIB} ${OMSDK_DEB_EXACT}")
# Only a static link (libomsdk.a, pkg-config --static) needs these.
set(CPACK_DEBIAN_DEV_PACKAGE_SUGGESTS "libssl-dev, uuid-dev")
set(CPACK_COMPONENT_DEV_DESCRIPTION
  "development files for libomsdk\nHeaders (C99 and C++), the pkg-config file, the CMake package, the API\ndocumentation and the libomsdk(3) manual page for building applications\nagainst libomsdk.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME ${OMSDK_DEB_TOOLS})
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION net)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${OMSDK_DEB_LIB} ${OMSDK_DEB_EXACT}")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION
  "switch simulator and demo endpoint for libomsdk\nomsdk-switch plays the parent switch of a power-management domain (discovery,\nhandshake, GET, SET, alarms, offline decoding of captured messages);\nomsdk-endpoint is a dimmable lamp built on libomsdk.")

include(CPack)
