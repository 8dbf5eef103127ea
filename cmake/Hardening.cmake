# Compiler mitigations against exploiting memory errors: the program parses data from other machines.
#
# Windows: address space layout randomisation with high entropy and non-executable data (the linker's
# defaults, stated here so that they stay), stack guard; with Visual C++'s interface also Control Flow Guard
# and shadow stacks (CET). Linux: the same as a position-independent program, plus the C library's checked
# functions and full RELRO.
include(CheckPIESupported)
check_pie_supported(LANGUAGES CXX)

if(MSVC)
  add_compile_options(/GS /guard:cf)
  add_link_options(/guard:cf /CETCOMPAT /HIGHENTROPYVA /DYNAMICBASE /NXCOMPAT)
else()
  add_compile_options(-fstack-protector-strong)
  if(WIN32)
    # MinGW has the guard in a separate library, which the same option links.
    add_link_options(-fstack-protector-strong -Wl,--high-entropy-va,--dynamicbase,--nxcompat)
  else()
    add_link_options(-Wl,-z,relro,-z,now,-z,noexecstack)
    # The checked functions require an optimizing build; the sanitizers have their own checks.
    if(CMAKE_BUILD_TYPE MATCHES "^Rel" AND NOT CMAKE_CXX_FLAGS MATCHES "-fsanitize")
      add_compile_options(-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
    endif()
  endif()
endif()
