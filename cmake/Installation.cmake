# SPDX-License-Identifier: MIT

# Installs the library, its headers, and the files for CMake and pkg-config.
include(CMakePackageConfigHelpers)

install(TARGETS zarip EXPORT zaripTargets DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY include/zarip ${PROJECT_BINARY_DIR}/generated/include/zarip DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
if(ZARIP_JSON_INSTALL_DIR)
  install(DIRECTORY compat/cajun DESTINATION ${ZARIP_JSON_INSTALL_DIR})
  set(ZARIP_JSON_CFLAGS "-I\${includedir}/zarip/compat ")
endif()
install(FILES docs/zarip.7 DESTINATION ${CMAKE_INSTALL_MANDIR}/man7)

# Installs the policies of the services for the bus of the device, and the users that the policies name.
install(DIRECTORY dbus/system.d DESTINATION ${CMAKE_INSTALL_DATADIR}/dbus-1)
install(DIRECTORY dbus/sysusers.d DESTINATION lib)
install(FILES ${ZARIP_INTERFACES} DESTINATION ${CMAKE_INSTALL_DATADIR}/dbus-1/interfaces)

# A program that links the static library links its dependencies as well.
set(ZARIP_REQUIRES_PRIVATE)
if(NOT BUILD_SHARED_LIBS)
  set(ZARIP_REQUIRES_PRIVATE "dbus-1 libxml-2.0 libgcrypt")
endif()
install(EXPORT zaripTargets NAMESPACE zarip:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/zarip)
configure_package_config_file(cmake/zaripConfig.cmake.in zaripConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/zarip)
write_basic_package_version_file(zaripConfigVersion.cmake COMPATIBILITY SameMinorVersion)
file(RELATIVE_PATH ZARIP_PREFIX_FROM_PC ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
configure_file(cmake/zarip.pc.in zarip.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/zaripConfig.cmake ${PROJECT_BINARY_DIR}/zaripConfigVersion.cmake
  cmake/ZaripInterface.cmake cmake/ZaripEmbedInterface.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/zarip)
install(FILES ${PROJECT_BINARY_DIR}/zarip.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
