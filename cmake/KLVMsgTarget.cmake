# What both libraries have in common.

# klvmsg_add_library(NAME HEADER_DIRS dir... SOURCE_DIRS dir...)
# Adds the shared library NAME and its alias KLVMsgCommModules::NAME.
function(klvmsg_add_library name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "HEADER_DIRS;SOURCE_DIRS")
  set(sources)
  foreach(dir IN LISTS arg_SOURCE_DIRS)
    file(GLOB found CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${dir}/*.cpp)
    list(APPEND sources ${found})
  endforeach()

  add_library(${name} SHARED ${sources})
  add_library(KLVMsgCommModules::${name} ALIAS ${name})
  # For those who use it the headers are the system's, as they are once installed: a warning that an
  # application turns on is about the application.
  foreach(dir IN LISTS arg_HEADER_DIRS)
    target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/${dir})
    target_include_directories(${name} SYSTEM INTERFACE
      $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/${dir}>)
  endforeach()
  target_include_directories(${name} SYSTEM INTERFACE
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/KLVMsgCommModules>)
  target_compile_features(${name} PUBLIC cxx_std_17)
  set_target_properties(${name} PROPERTIES
    CXX_EXTENSIONS OFF
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON
    VERSION ${PROJECT_VERSION}
    SOVERSION ${PROJECT_VERSION_MAJOR})
  klvmsg_add_warnings(${name})
endfunction()

# The warnings that every target of this project is built without.
function(klvmsg_add_warnings name)
  target_compile_options(${name} PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Wconversion)
  target_link_options(${name} PRIVATE -Wl,--no-undefined)
endfunction()
