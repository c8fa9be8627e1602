include(CMakePackageConfigHelpers)

install(TARGETS omsdk EXPORT omsdkTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES ${PROJECT_SOURCE_DIR}/include/omsdk.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/omsdk DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  FILES_MATCHING PATTERN "*.h")

install(EXPORT omsdkTargets NAMESPACE omsdk:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/omsdk)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/omsdkConfig.cmake.in
  ${PROJECT_BINARY_DIR}/omsdkConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/omsdk)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/omsdkConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/omsdkConfig.cmake ${PROJECT_BINARY_DIR}/omsdkConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/omsdk)

# The .pc file finds its prefix relative to itself, so that an install with
# `cmake --install --prefix` elsewhere still points at the right place.
file(RELATIVE_PATH OMSDK_PC_PREFIX "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig" "${CMAKE_INSTALL_PREFIX}")
string(REGEX REPLACE "/$" "" OMSDK_PC_PREFIX "${OMSDK_PC_PREFIX}")
configure_file(${PROJECT_SOURCE_DIR}/cmake/omsdk.pc.in ${PROJECT_BINARY_DIR}/omsdk.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/omsdk.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
