# What `cmake --install` puts where, the CMake package, the pkg-config file, and the Debian packages.
include(CMakePackageConfigHelpers)

set(include_dir ${CMAKE_INSTALL_INCLUDEDIR}/KLVMsgCommModules)
set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/KLVMsgCommModules)
file(GLOB base_headers CONFIGURE_DEPENDS
  ${PROJECT_SOURCE_DIR}/KLVBase/ProtectedInterfaces/*.h
  ${PROJECT_SOURCE_DIR}/KLVBase/Containers/*.h)
file(GLOB message_headers CONFIGURE_DEPENDS
  ${PROJECT_SOURCE_DIR}/KLVMsgCommServices/ProtectedInterfaces/*.h)

# The libraries are looked up beside each other, so that the installed tree can be moved.
set(libraries KLVMsgCommModules)
if(NOT KLVMSG_BASE_TARGET)
  list(APPEND libraries KLVBase)
endif()
set_target_properties(${libraries} PROPERTIES INSTALL_RPATH "$ORIGIN")

# An application's own base belongs to the application: its headers, its library and the package
# files that name it are not ours to install.
if(KLVMSG_BASE_TARGET)
  set(base_headers ${templates})
  install(TARGETS ${libraries}
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development)
  install(FILES ${base_headers} ${message_headers}
    DESTINATION ${include_dir} COMPONENT development)
  return()
endif()

install(TARGETS ${libraries} EXPORT KLVMsgCommModulesTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development)
install(FILES ${base_headers} ${message_headers} DESTINATION ${include_dir} COMPONENT development)

# find_package(KLVMsgCommModules)
configure_package_config_file(cmake/KLVMsgCommModulesConfig.cmake.in
  ${PROJECT_BINARY_DIR}/KLVMsgCommModulesConfig.cmake INSTALL_DESTINATION ${package_dir}
  NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/KLVMsgCommModulesConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/KLVMsgCommModulesConfig.cmake
              ${PROJECT_BINARY_DIR}/KLVMsgCommModulesConfigVersion.cmake
  DESTINATION ${package_dir} COMPONENT development)
install(EXPORT KLVMsgCommModulesTargets NAMESPACE KLVMsgCommModules::
  DESTINATION ${package_dir} COMPONENT development)

# pkg-config KLVMsgCommModules: all its paths start from where the file itself stands.
file(RELATIVE_PATH pc_to_include
  ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_FULL_INCLUDEDIR})
configure_file(cmake/KLVMsgCommModules.pc.in ${PROJECT_BINARY_DIR}/KLVMsgCommModules.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/KLVMsgCommModules.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

if(PROJECT_IS_TOP_LEVEL)
  include(cmake/KLVMsgPackages.cmake)
endif()
