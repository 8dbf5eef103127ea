# Header-only libraries, from Debian's packages on both platforms (libboost-dev, rapidjson-dev,
# libfmt-dev, libutfcpp-dev, libcli11-dev).
#
# The cross compiler must never see /usr/include itself, so the libraries are linked into a separate folder.
# A toolchain that provides them itself (vcpkg) sets KYD_HEADERS_FROM_TOOLCHAIN.
option(KYD_HEADERS_FROM_TOOLCHAIN "The toolchain provides Boost, RapidJSON, fmt, utfcpp, CLI11 and GoogleTest" OFF)

add_library(kyd_headers INTERFACE)
add_library(kyd::headers ALIAS kyd_headers)
# Prevents Boost's headers from requesting compiled libraries from Visual C++'s linker; none is used.
target_compile_definitions(kyd_headers INTERFACE FMT_HEADER_ONLY=1 BOOST_ALL_NO_LIB)
if(KYD_HEADERS_FROM_TOOLCHAIN)
  foreach(header CLI/CLI.hpp boost/exception/all.hpp rapidjson/document.h fmt/printf.h utf8.h)
    string(MAKE_C_IDENTIFIER kyd_folder_of_${header} folder)
    find_path(${folder} ${header} PATH_SUFFIXES utf8cpp REQUIRED)
    target_include_directories(kyd_headers SYSTEM INTERFACE ${${folder}})
  endforeach()
else()
  set(kyd_header_folder ${CMAKE_BINARY_DIR}/deps/include)
  file(MAKE_DIRECTORY ${kyd_header_folder})
  foreach(name CLI boost rapidjson fmt utf8 utf8.h)
    if(NOT EXISTS /usr/include/${name})
      message(FATAL_ERROR "/usr/include/${name} is missing: run './dev setup'")
    endif()
    if(NOT (name STREQUAL "rapidjson" AND CMAKE_CXX_COMPILER_ID STREQUAL "Clang"))
      file(CREATE_LINK /usr/include/${name} ${kyd_header_folder}/${name} SYMBOLIC)
    endif()
  endforeach()
  if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    # RapidJSON 1.1.0 has an operator that assigns to constant members. It is never called, but clang 19
    # rejects it; later versions of RapidJSON have deleted it.
    file(COPY /usr/include/rapidjson DESTINATION ${kyd_header_folder} PATTERN document.h EXCLUDE)
    file(READ /usr/include/rapidjson/document.h document)
    string(REPLACE "operator=(const GenericStringRef& rhs) { s = rhs.s; length = rhs.length; }"
                   "operator=(const GenericStringRef& rhs) = delete;" document "${document}")
    set(fixed ${kyd_header_folder}/rapidjson/document.h)
    if(EXISTS ${fixed})
      file(READ ${fixed} existing)
    endif()
    if(NOT existing STREQUAL document)
      file(WRITE ${fixed} "${document}")
    endif()
  endif()
  target_include_directories(kyd_headers SYSTEM INTERFACE ${kyd_header_folder})
endif()
