# Base facilities of an application's own, as a target for the library to be built on. Include this
# before the library: include(OwnBase.cmake), then add_subdirectory(KLVMsgCommModules).
find_package(Threads REQUIRED)

# Exactly the headers that the library includes of a base. Here one header has them all; where the
# application has headers of these names, its own folder takes the place of `headers`.
foreach(name IN ITEMS
    KLVBasAtiMutex KLVBasAtiThread KLVBasAtiThreadTask KLVBasAtiThreadingModel KLVBasModules
    KLVBasUtlsleep KLVBasVector KLVBasVectorGeneric KLVString VORFatalError aio_ostream
    mem_Allocation mem_AllocationOperators omi_IntTable omi_UintTable)
  file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/headers/${name}.h CONTENT "#include <OwnBase.h>\n")
endforeach()
add_library(OwnBase INTERFACE)
target_include_directories(OwnBase INTERFACE
  ${CMAKE_CURRENT_LIST_DIR} ${PROJECT_BINARY_DIR}/headers)
target_compile_features(OwnBase INTERFACE cxx_std_17)
target_link_libraries(OwnBase INTERFACE Threads::Threads)

set(KLVMSG_BASE_TARGET OwnBase)
