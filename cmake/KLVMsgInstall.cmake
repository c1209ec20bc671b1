# What `cmake --install` puts where: the libraries, what is needed to build with them, and the tools.
include(CMakePackageConfigHelpers)

set(include_dir ${CMAKE_INSTALL_INCLUDEDIR}/KLVMsgCommModules)
set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/KLVMsgCommModules)
file(GLOB base_headers CONFIGURE_DEPENDS
  ${PROJECT_SOURCE_DIR}/KLVBase/ProtectedInterfaces/*.h
  ${PROJECT_SOURCE_DIR}/KLVBase/Containers/*.h)
file(GLOB message_headers CONFIGURE_DEPENDS
  ${PROJECT_SOURCE_DIR}/KLVMsgCommServices/ProtectedInterfaces/*.h
  ${PROJECT_SOURCE_DIR}/KLVMsgKit/ProtectedInterfaces/*.h)

# The libraries are looked up beside each other, so that the installed tree can be moved.
set(libraries KLVMsgKit KLVMsgCommModules)
if(NOT KLVMSG_BASE_TARGET)
  list(APPEND libraries KLVBase)
endif()
set_target_properties(${libraries} PROPERTIES INSTALL_RPATH "$ORIGIN")
if(TARGET KLVMsgKitTls)
  set_target_properties(KLVMsgKitTls PROPERTIES INSTALL_RPATH "$ORIGIN")
  install(TARGETS KLVMsgKitTls EXPORT KLVMsgCommModulesTlsTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development)
  file(GLOB tls_headers CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/KLVMsgKitTls/ProtectedInterfaces/*.h)
  install(FILES ${tls_headers} DESTINATION ${include_dir} COMPONENT development)
endif()

if(KLVMSG_BASE_TARGET)
  set(base_headers ${templates})
endif()
install(TARGETS ${libraries} EXPORT KLVMsgCommModulesTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development)
install(FILES ${base_headers} ${message_headers} DESTINATION ${include_dir} COMPONENT development)

# pkg-config KLVMsgCommModules: with the system's own prefix plain paths, otherwise such that start
# from where the file itself stands, since that tree can be moved.
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set(pc_prefix /usr)
  set(pc_libdir ${CMAKE_INSTALL_FULL_LIBDIR})
  set(pc_includedir ${CMAKE_INSTALL_FULL_INCLUDEDIR})
else()
  set(from ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig)
  file(RELATIVE_PATH pc_prefix ${from} ${CMAKE_INSTALL_PREFIX})
  file(RELATIVE_PATH pc_includedir ${from} ${CMAKE_INSTALL_FULL_INCLUDEDIR})
  string(REGEX REPLACE "/$" "" pc_prefix \${pcfiledir}/${pc_prefix})
  set(pc_libdir \${pcfiledir}/..)
  set(pc_includedir \${pcfiledir}/${pc_includedir})
endif()
list(TRANSFORM libraries PREPEND -l OUTPUT_VARIABLE pc_libs)
list(JOIN pc_libs " " pc_libs)
configure_file(cmake/KLVMsgCommModules.pc.in ${PROJECT_BINARY_DIR}/KLVMsgCommModules.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/KLVMsgCommModules.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
if(TARGET KLVMsgKitTls)
  configure_file(cmake/KLVMsgCommModulesTls.pc.in ${PROJECT_BINARY_DIR}/KLVMsgCommModulesTls.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/KLVMsgCommModulesTls.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
endif()

# An application's own base belongs to the application: the package files that name it, and tools that
# would not find it, are not ours to install.
if(KLVMSG_BASE_TARGET)
  return()
endif()

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
if(TARGET KLVMsgKitTls)
  install(EXPORT KLVMsgCommModulesTlsTargets NAMESPACE KLVMsgCommModules::
    DESTINATION ${package_dir} COMPONENT development)
endif()

# The bridge, and a unit of systemd for each configuration of it.
if(TARGET klvmsg-bridge)
  file(RELATIVE_PATH bin_to_lib ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
  set_target_properties(klvmsg-bridge PROPERTIES INSTALL_RPATH "$ORIGIN/${bin_to_lib}")
  install(TARGETS klvmsg-bridge RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT bridge)
  install(FILES KLVMsgBridge/klvmsg-bridge.1
    DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT bridge)
  configure_file(KLVMsgBridge/systemd/klvmsg-bridge@.service.in klvmsg-bridge@.service @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/klvmsg-bridge@.service
    DESTINATION lib/systemd/system COMPONENT bridge)
endif()

# The command-line peer, and the dissector where a Wireshark of the same prefix looks for it.
if(TARGET klvmsgcat)
  file(RELATIVE_PATH bin_to_lib ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
  set_target_properties(klvmsgcat PROPERTIES INSTALL_RPATH "$ORIGIN/${bin_to_lib}")
  install(TARGETS klvmsgcat RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
  install(FILES examples/klvmsgcat/klvmsgcat.1
    DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
endif()
install(FILES tools/wireshark/klvmsg.lua
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/wireshark/plugins COMPONENT tools)
