# Defines kyd::cpprest, the REST library.
#
# The patched library comes from ./build, which keeps it in a cache outside the build folders.
# KYD_SYSTEM_CPPREST takes an installed, unpatched one instead; README.md says what is then missing.

option(KYD_SYSTEM_CPPREST "Use an installed cpprestsdk instead of the patched one" OFF)

if(KYD_SYSTEM_CPPREST)
    find_package(cpprestsdk 2.10 REQUIRED)
    add_library(kyd_cpprest INTERFACE)
    target_link_libraries(kyd_cpprest INTERFACE cpprestsdk::cpprest)
    add_library(kyd::cpprest ALIAS kyd_cpprest)
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
     ${CMAKE_CURRENT_LIST_DIR}/*.patch ${CMAKE_CURRENT_LIST_DIR}/*.cmake)
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

# An imported target's headers are system headers to those who use it.
add_library(kyd::cpprest STATIC IMPORTED GLOBAL)
set_target_properties(kyd::cpprest PROPERTIES
    IMPORTED_LOCATION ${kyd_cpprest_prefix}/lib/${CMAKE_STATIC_LIBRARY_PREFIX}cpprest${CMAKE_STATIC_LIBRARY_SUFFIX}
    INTERFACE_INCLUDE_DIRECTORIES ${kyd_cpprest_prefix}/include)
# The definitions decide the layout of the library's classes and must be those of CMakeLists.txt.
target_compile_definitions(kyd::cpprest INTERFACE
    CPPREST_EXCLUDE_WEBSOCKETS=1 CPPREST_EXCLUDE_COMPRESSION=1)
if(WIN32)
    target_compile_definitions(kyd::cpprest INTERFACE
        CPPREST_FORCE_PPLX=1 _NO_ASYNCRTIMP _NO_PPLXIMP)
    target_link_libraries(kyd::cpprest INTERFACE winhttp crypt32 bcrypt)
else()
    find_package(OpenSSL REQUIRED)
    find_package(Threads REQUIRED)
    target_compile_definitions(kyd::cpprest INTERFACE CPPREST_FORCE_HTTP_CLIENT_ASIO=1)
    target_link_libraries(kyd::cpprest INTERFACE OpenSSL::SSL OpenSSL::Crypto Threads::Threads)
endif()
