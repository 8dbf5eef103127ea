# Version resource and manifest of the Windows programs.

# The purpose of each binary interface. Program and closed libraries must use the same one.
set(kyd_purpose_mingw "Built with MinGW-w64, for the stand-in libraries; not for libraries that Visual Studio has built")
set(kyd_purpose_msvc "In Visual C++'s binary interface, for closed libraries that Visual Studio has built")

# kyd_windows_identity(<target> DESCRIPTION <text>): adds both to an executable. The version is that of the
# project. Does nothing on other platforms.
function(kyd_windows_identity target)
  cmake_parse_arguments(arg "" "DESCRIPTION" "" ${ARGN})
  if(NOT WIN32)
    return()
  endif()
  set(KYD_TARGET ${target})
  set(KYD_DESCRIPTION "${arg_DESCRIPTION}")
  if(MSVC)
    set(KYD_ABI msvc)
  else()
    set(KYD_ABI mingw)
  endif()
  set(KYD_PURPOSE "${kyd_purpose_${KYD_ABI}}")
  set(KYD_MANIFEST ${CMAKE_CURRENT_BINARY_DIR}/${target}.manifest)
  set(resources ${CMAKE_CURRENT_BINARY_DIR}/${target}_identity.rc)
  configure_file(${CMAKE_SOURCE_DIR}/cmake/windows/program.manifest.in ${KYD_MANIFEST} @ONLY)
  configure_file(${CMAKE_SOURCE_DIR}/cmake/windows/identity.rc.in ${resources} @ONLY)
  set_source_files_properties(${resources} PROPERTIES OBJECT_DEPENDS ${KYD_MANIFEST})
  target_sources(${target} PRIVATE ${resources})
  if(MSVC)
    # Otherwise the linker adds its own manifest.
    target_link_options(${target} PRIVATE /MANIFEST:NO)
  endif()
endfunction()
