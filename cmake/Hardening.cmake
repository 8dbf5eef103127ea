# What the compilers give against the use of a memory error. The program handles other machines' bytes.
#
# Windows: address space layout with high entropy, no execution of data (the linker's defaults, named here
# so that they stay), a guard on the stack; with Visual C++'s interface also checked targets of indirect calls
# and return addresses that the processor compares (CET). Linux: the same as a position-independent program, the
# C library's checked functions, and a relocation table that is read-only once the program runs.
include(CheckPIESupported)
check_pie_supported(LANGUAGES CXX)

if(MSVC)
  add_compile_options(/GS /guard:cf)
  add_link_options(/guard:cf /CETCOMPAT /HIGHENTROPYVA /DYNAMICBASE /NXCOMPAT)
else()
  add_compile_options(-fstack-protector-strong)
  if(WIN32)
    # MinGW keeps the guard in a library of its own, which the same option links.
    add_link_options(-fstack-protector-strong -Wl,--high-entropy-va,--dynamicbase,--nxcompat)
  else()
    add_link_options(-Wl,-z,relro,-z,now,-z,noexecstack)
    # The checked functions need an optimizing build; the sanitizers bring checks of their own.
    if(CMAKE_BUILD_TYPE MATCHES "^Rel" AND NOT CMAKE_CXX_FLAGS MATCHES "-fsanitize")
      add_compile_options(-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
    endif()
  endif()
endif()
