# Header-only libraries, from Debian's packages on both platforms (libboost-dev, rapidjson-dev,
# libfmt-dev, libutfcpp-dev, libcli11-dev).
#
# The cross compiler must never see /usr/include itself, so the libraries are linked into a folder of
# their own. A toolchain that brings them itself (vcpkg) sets KYD_HEADERS_FROM_TOOLCHAIN.
option(KYD_HEADERS_FROM_TOOLCHAIN "The toolchain provides Boost, RapidJSON, fmt, utfcpp and CLI11" OFF)

add_library(kyd_headers INTERFACE)
add_library(kyd::headers ALIAS kyd_headers)
target_compile_definitions(kyd_headers INTERFACE FMT_HEADER_ONLY=1)
if(NOT KYD_HEADERS_FROM_TOOLCHAIN)
  set(kyd_header_folder ${CMAKE_BINARY_DIR}/deps/include)
  file(MAKE_DIRECTORY ${kyd_header_folder})
  foreach(name CLI boost rapidjson fmt utf8 utf8.h)
    if(NOT EXISTS /usr/include/${name})
      message(FATAL_ERROR "/usr/include/${name} is missing: run './dev setup'")
    endif()
    file(CREATE_LINK /usr/include/${name} ${kyd_header_folder}/${name} SYMBOLIC)
  endforeach()
  target_include_directories(kyd_headers SYSTEM INTERFACE ${kyd_header_folder})
endif()
