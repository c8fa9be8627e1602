# SPDX-License-Identifier: Apache-2.0
include(CMakePackageConfigHelpers)

# Install components (cmake/package.cmake makes one Debian package of each):
# lib is the run-time library, dev everything needed to build against it.
option(OMSDK_BUILD_STATIC "Also build libomsdk.a, for programs that link statically" ON)
target_include_directories(omsdk PUBLIC $<BUILD_INTERFACE:${PROJECT_BINARY_DIR}/include>)
set(OMSDK_INSTALL_TARGETS omsdk)

if(OMSDK_BUILD_STATIC)
  # The archive holds one relocatable object made of the whole library, with
  # every hidden symbol made local: as with the shared library, a program
  # sees only the exported names. The exported names without a prefix are
  # made weak, so that a program's own function of the same name (strlcat,
  # enqueue, ...) takes their place, as it does with the shared library,
  # instead of clashing with it.
  set(OMSDK_UNPREFIXED ${OMSDK_EXPORT_NAMES})
  list(FILTER OMSDK_UNPREFIXED EXCLUDE REGEX "^(ohmara_|om_|cv_|omr_)")
  list(JOIN OMSDK_UNPREFIXED "\n" weak_body)
  file(WRITE ${PROJECT_BINARY_DIR}/omsdk-weak.txt.in "${weak_body}\n")
  configure_file(${PROJECT_BINARY_DIR}/omsdk-weak.txt.in ${PROJECT_BINARY_DIR}/omsdk-weak.txt COPYONLY)
  set(combined ${PROJECT_BINARY_DIR}/omsdk_static.o)
  set(module_objs)
  foreach(mod IN LISTS OMSDK_MODULES)
    list(APPEND module_objs om_${mod}_obj)
  endforeach()
  add_custom_command(OUTPUT ${combined}
    COMMAND ${CMAKE_LINKER} -r -o ${combined} ${OMSDK_ALL_OBJECTS}
    COMMAND ${CMAKE_OBJCOPY} --localize-hidden --weaken-symbols=${PROJECT_BINARY_DIR}/omsdk-weak.txt
            ${combined}
    DEPENDS ${module_objs} ${OMSDK_ALL_OBJECTS} ${PROJECT_BINARY_DIR}/omsdk-weak.txt
    COMMAND_EXPAND_LISTS VERBATIM
    COMMENT "Combining the library's objects for libomsdk.a")
  set_source_files_properties(${combined} PROPERTIES EXTERNAL_OBJECT ON GENERATED ON)
  add_library(omsdk_static STATIC ${combined})
  add_library(omsdk::omsdk_static ALIAS omsdk_static)
  set_target_properties(omsdk_static PROPERTIES OUTPUT_NAME omsdk LINKER_LANGUAGE C)
  target_include_directories(omsdk_static PUBLIC
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
    $<BUILD_INTERFACE:${PROJECT_BINARY_DIR}/include>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  # What the archive needs from the system, by name, as omsdk.pc's Libs.private.
  target_link_libraries(omsdk_static INTERFACE
    $<BUILD_INTERFACE:OpenSSL::Crypto> $<BUILD_INTERFACE:${UUID_LIBRARY}>
    $<BUILD_INTERFACE:Threads::Threads>
    $<INSTALL_INTERFACE:crypto> $<INSTALL_INTERFACE:uuid> $<INSTALL_INTERFACE:pthread>)
  list(APPEND OMSDK_INSTALL_TARGETS omsdk_static)
endif()

install(TARGETS ${OMSDK_INSTALL_TARGETS} EXPORT omsdkTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT lib NAMELINK_COMPONENT dev
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT lib
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES ${PROJECT_SOURCE_DIR}/include/omsdk.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  COMPONENT dev)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/omsdk DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  COMPONENT dev FILES_MATCHING PATTERN "*.h")
install(FILES ${PROJECT_BINARY_DIR}/include/omsdk/version.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/omsdk COMPONENT dev)

install(EXPORT omsdkTargets NAMESPACE omsdk:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/omsdk
  COMPONENT dev)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/omsdkConfig.cmake.in
  ${PROJECT_BINARY_DIR}/omsdkConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/omsdk)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/omsdkConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/omsdkConfig.cmake ${PROJECT_BINARY_DIR}/omsdkConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/omsdk COMPONENT dev)

# The .pc file finds its prefix relative to itself, so that an install with
# `cmake --install --prefix` elsewhere still points at the right place.
file(RELATIVE_PATH OMSDK_PC_PREFIX "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig" "${CMAKE_INSTALL_PREFIX}")
string(REGEX REPLACE "/$" "" OMSDK_PC_PREFIX "${OMSDK_PC_PREFIX}")
configure_file(${PROJECT_SOURCE_DIR}/cmake/omsdk.pc.in ${PROJECT_BINARY_DIR}/omsdk.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/omsdk.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
  COMPONENT dev)
