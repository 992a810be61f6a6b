# Installation: the shared library with its header, the programs, the
# kernel's library directory, a pkg-config file and a CMake package.
#
#   cmake --install build --prefix /opt/tamix
#
# Programs find each other relative to the prefix: the library through the
# RPATH $ORIGIN/../lib, the kernel's start-up file in <prefix>/lib/tamkern.
include(CMakePackageConfigHelpers)

set(TAMIX_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/Tamix)

install(TARGETS tamclient tamix_api EXPORT TamixTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT devel
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES include/tamix/tamix.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tamix COMPONENT devel)

foreach(program tamcon tamix tamkern tamkern-evaluator)
  if(TARGET ${program})
    install(TARGETS ${program} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)
  endif()
endforeach()
if(TARGET tamkern)
  # The console hands the kernel "../lib" as its library directory, relative
  # to bin/, whatever the platform's library directory is called.
  install(FILES tamkern/init DESTINATION lib/tamkern COMPONENT runtime)
endif()

# pkg-config: relocatable, the prefix is found from the file's own place.
file(RELATIVE_PATH tamix_pc_to_prefix
  ${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" tamix_pc_to_prefix "${tamix_pc_to_prefix}")
configure_file(cmake/tamix.pc.in ${PROJECT_BINARY_DIR}/tamix.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/tamix.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT devel)

# CMake: find_package(Tamix) gives Tamix::tamclient.
install(EXPORT TamixTargets NAMESPACE Tamix:: DESTINATION ${TAMIX_CMAKE_DIR} COMPONENT devel)
configure_package_config_file(cmake/TamixConfig.cmake.in
  ${PROJECT_BINARY_DIR}/TamixConfig.cmake INSTALL_DESTINATION ${TAMIX_CMAKE_DIR})
# Before 1.0 a minor release may change the interface.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/TamixConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/TamixConfig.cmake ${PROJECT_BINARY_DIR}/TamixConfigVersion.cmake
  DESTINATION ${TAMIX_CMAKE_DIR} COMPONENT devel)
