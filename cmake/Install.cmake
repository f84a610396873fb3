include(CMakePackageConfigHelpers)

set(MOLVANEAV_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/MolvaneAV)

install(TARGETS MolvaneAV MolvanePlayer EXPORT MolvaneAVTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/MolvaneAV
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT MolvaneAVTargets
  NAMESPACE MolvaneAV::
  DESTINATION ${MOLVANEAV_CMAKE_DIR})

configure_package_config_file(
  ${PROJECT_SOURCE_DIR}/cmake/MolvaneAVConfig.cmake.in
  ${PROJECT_BINARY_DIR}/MolvaneAVConfig.cmake
  INSTALL_DESTINATION ${MOLVANEAV_CMAKE_DIR})
write_basic_package_version_file(
  ${PROJECT_BINARY_DIR}/MolvaneAVConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/MolvaneAVConfig.cmake
  ${PROJECT_BINARY_DIR}/MolvaneAVConfigVersion.cmake
  DESTINATION ${MOLVANEAV_CMAKE_DIR})

file(RELATIVE_PATH MOLVANEAV_PC_TO_PREFIX
  ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
configure_file(${PROJECT_SOURCE_DIR}/cmake/molvaneav.pc.in
  ${PROJECT_BINARY_DIR}/molvaneav.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/molvaneav.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
