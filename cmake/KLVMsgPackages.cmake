# The Debian packages: what a program needs to run, and what is needed to build one.
# scripts/build-packages.sh makes and checks them.
set(runtime_package libklvmsgcommmodules${PROJECT_VERSION_MAJOR})
set(development_package libklvmsgcommmodules-dev)
set(CPACK_PACKAGE_CONTACT "The KLVMsgCommModules authors <klvmsgcommmodules@example.org>"
  CACHE STRING "Maintainer of the packages, with an address")

if(EXISTS ${PROJECT_SOURCE_DIR}/LICENSE)
  file(READ ${PROJECT_SOURCE_DIR}/LICENSE license_text)
  string(REGEX REPLACE "\n\n" "\n.\n" license_text "${license_text}")
  string(REGEX REPLACE "\n(.)" "\n \\1" license_text "${license_text}")
  set(license_name LICENSE)
else()
  set(license_name proprietary)
  set(license_text "All rights reserved by the authors.")
endif()

# Each package carries its copyright and its changes; an installation by hand goes without.
foreach(component IN ITEMS runtime development)
  set(package ${${component}_package})
  set(doc_dir ${PROJECT_BINARY_DIR}/packages/${package})
  configure_file(cmake/debian/copyright.in ${doc_dir}/copyright @ONLY)
  configure_file(cmake/debian/changelog.in ${doc_dir}/changelog @ONLY)
  execute_process(COMMAND gzip -9nkf ${doc_dir}/changelog COMMAND_ERROR_IS_FATAL ANY)
  install(FILES ${doc_dir}/copyright ${doc_dir}/changelog.gz
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${package}
    COMPONENT ${component} EXCLUDE_FROM_ALL)
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "typed messages between processes over TCP")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(CPACK_COMPONENTS_ALL runtime development)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

# The one library uses the other, which lies beside it in the same package.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})

set(what_it_is "Processes exchange messages under a type name: each registers a prototype
of every type, listens or connects, and runs one background task that sends
what its threads have queued and puts what arrives into an inbox.")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${runtime_package})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "${what_it_is}
.
This package contains the libraries.")
# CPack's own scripts call ldconfig; the trigger has dpkg do it as for every other package.
configure_file(cmake/debian/shlibs.in ${PROJECT_BINARY_DIR}/packages/shlibs @ONLY)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
  ${PROJECT_BINARY_DIR}/packages/shlibs ${PROJECT_SOURCE_DIR}/cmake/debian/triggers)

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME ${development_package})
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${runtime_package} (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "${what_it_is}
.
This package contains the headers, the CMake package and the pkg-config file.")
include(CPack)
