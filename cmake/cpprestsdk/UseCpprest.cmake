# Defines cpprestsdk::cpprest, the REST library.
#
# ./build builds the patched library and caches it outside the build folders. With KYD_SYSTEM_CPPREST, an
# installed library is used instead: the same one from vcpkg (portfile.cmake), or an unpatched one; README.md
# describes what is missing then.

option(KYD_SYSTEM_CPPREST "Use an installed cpprestsdk instead of building the patched one" OFF)

if(KYD_SYSTEM_CPPREST)
    find_package(cpprestsdk CONFIG REQUIRED)
    return()
endif()

if(MSVC)
    set(kyd_cpprest_default windows-msvc)
elseif(WIN32)
    set(kyd_cpprest_default windows)
else()
    set(kyd_cpprest_default linux)
endif()
set(KYD_CPPREST_FLAVOUR ${kyd_cpprest_default} CACHE STRING
    "Flavour of the REST library: linux, windows, windows-msvc, asan or tsan")

file(GLOB kyd_cpprest_inputs CONFIGURE_DEPENDS
     ${CMAKE_CURRENT_LIST_DIR}/*.patch ${CMAKE_CURRENT_LIST_DIR}/*.cmake ${CMAKE_CURRENT_LIST_DIR}/*.h)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS
             ${kyd_cpprest_inputs} ${CMAKE_CURRENT_LIST_DIR}/build
             ${CMAKE_CURRENT_LIST_DIR}/CMakeLists.txt)

message(STATUS "REST library (${KYD_CPPREST_FLAVOUR}): the first build takes a few minutes")
execute_process(
    COMMAND ${CMAKE_COMMAND} -E env KYD_WINDOWS_SDK=${KYD_WINDOWS_SDK}
            ${CMAKE_CURRENT_LIST_DIR}/build ${KYD_CPPREST_FLAVOUR}
    OUTPUT_VARIABLE kyd_cpprest_prefix
    OUTPUT_STRIP_TRAILING_WHITESPACE
    RESULT_VARIABLE kyd_cpprest_result)
if(NOT kyd_cpprest_result EQUAL 0)
    message(FATAL_ERROR "The REST library could not be built; its output is above.")
endif()
message(STATUS "REST library: ${kyd_cpprest_prefix}")

set(cpprestsdk_DIR ${kyd_cpprest_prefix}/share/cpprestsdk)
find_package(cpprestsdk CONFIG REQUIRED NO_DEFAULT_PATH)
