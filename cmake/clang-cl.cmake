# Cross build for Windows x86-64 in Visual C++'s binary interface, with Debian's clang, lld and LLVM, and a
# Windows SDK in the layout of `xwin splat`: the folder KYD_WINDOWS_SDK (cache or environment variable). Without
# it windows-sdk makes a stand-in, only for tests.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR AMD64)
set(CMAKE_SYSTEM_VERSION 10.0)

# CMake reads this file again for each of its checks, and for the REST library.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES KYD_WINDOWS_SDK)
if(NOT KYD_WINDOWS_SDK_FOUND)
  if(KYD_WINDOWS_SDK)
    set(ENV{KYD_WINDOWS_SDK} ${KYD_WINDOWS_SDK})
  endif()
  execute_process(COMMAND ${CMAKE_CURRENT_LIST_DIR}/windows-sdk
                  OUTPUT_VARIABLE sdk OUTPUT_STRIP_TRAILING_WHITESPACE RESULT_VARIABLE result)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "There is no Windows SDK to build with; the reason is above.")
  endif()
  set(KYD_WINDOWS_SDK ${sdk} CACHE PATH "Folder that 'xwin splat' has written" FORCE)
  set(KYD_WINDOWS_SDK_FOUND TRUE)
endif()

# The standard library wants a newer clang than Debian 12's default. Debian has no clang-cl of this version, but
# clang is clang-cl when it is called by that name.
set(llvm 19)
find_program(KYD_CLANG clang-${llvm} REQUIRED)
set(clang_cl ${CMAKE_BINARY_DIR}/toolchain/clang-cl)
if(NOT EXISTS ${clang_cl})
  file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/toolchain)
  file(CREATE_LINK ${KYD_CLANG} ${clang_cl} SYMBOLIC)
endif()
set(CMAKE_C_COMPILER ${clang_cl})
set(CMAKE_CXX_COMPILER ${clang_cl})
set(CMAKE_C_COMPILER_TARGET x86_64-pc-windows-msvc)
set(CMAKE_CXX_COMPILER_TARGET x86_64-pc-windows-msvc)
find_program(CMAKE_LINKER lld-link-${llvm} REQUIRED)
find_program(CMAKE_AR llvm-lib-${llvm} REQUIRED)
find_program(CMAKE_RC_COMPILER llvm-rc-${llvm} REQUIRED)
find_program(CMAKE_MT llvm-mt-${llvm} REQUIRED)

set(includes "")
foreach(folder crt/include sdk/include/ucrt sdk/include/um sdk/include/shared)
  string(APPEND includes " /imsvc ${KYD_WINDOWS_SDK}/${folder}")
  string(APPEND CMAKE_RC_FLAGS_INIT " /I ${KYD_WINDOWS_SDK}/${folder}")
endforeach()
set(CMAKE_C_FLAGS_INIT "${includes}")
set(CMAKE_CXX_FLAGS_INIT "${includes} /EHsc")
set(libraries "")
foreach(folder crt/lib/x86_64 sdk/lib/ucrt/x86_64 sdk/lib/um/x86_64)
  string(APPEND libraries " -libpath:${KYD_WINDOWS_SDK}/${folder}")
endforeach()
foreach(kind EXE SHARED MODULE)
  set(CMAKE_${kind}_LINKER_FLAGS_INIT "${libraries}")
endforeach()

# A stand-in has no debug version of the run-time for CMake's checks.
set(CMAKE_TRY_COMPILE_CONFIGURATION Release)

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
