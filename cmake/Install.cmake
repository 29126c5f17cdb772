# `cmake --install`: libIntf.so with its version, every public header under
# one include root, a CMake package (find_package(Intf) -> Intf::Intf) and a
# pkg-config file (intf.pc).
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

install(TARGETS Intf EXPORT IntfTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

# Each runtime library keeps its headers in runtime/<lib>/include/<Namespace>/.
file(GLOB INTF_RUNTIME_INCLUDES LIST_DIRECTORIES true ${PROJECT_SOURCE_DIR}/runtime/*/include)
foreach(dir IN LISTS INTF_RUNTIME_INCLUDES)
  install(DIRECTORY ${dir}/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
endforeach()
install(DIRECTORY ${PROJECT_SOURCE_DIR}/src-includes/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

set(INTF_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/Intf)
install(EXPORT IntfTargets NAMESPACE Intf:: DESTINATION ${INTF_CMAKE_DIR})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/IntfConfig.cmake.in
  ${PROJECT_BINARY_DIR}/IntfConfig.cmake INSTALL_DESTINATION ${INTF_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/IntfConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/IntfConfig.cmake ${PROJECT_BINARY_DIR}/IntfConfigVersion.cmake
  DESTINATION ${INTF_CMAKE_DIR})

file(RELATIVE_PATH INTF_PC_TO_PREFIX ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" INTF_PC_TO_PREFIX "${INTF_PC_TO_PREFIX}")
configure_file(${PROJECT_SOURCE_DIR}/cmake/intf.pc.in ${PROJECT_BINARY_DIR}/intf.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/intf.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
