# What find_package(cpprestsdk) reads in the installed library.
include(CMakeFindDependencyMacro)
if(NOT WIN32)
    find_dependency(OpenSSL)
    find_dependency(Threads)
endif()
include(${CMAKE_CURRENT_LIST_DIR}/cpprestsdk-targets.cmake)
