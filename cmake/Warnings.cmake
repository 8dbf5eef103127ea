# The warnings that our own code is free of. Third-party code does not link this target.
option(KYD_WARNINGS_AS_ERRORS "Let a warning in our own code end the build" ON)

add_library(kyd_warnings INTERFACE)
add_library(kyd::warnings ALIAS kyd_warnings)
target_compile_options(kyd_warnings INTERFACE
  $<$<CXX_COMPILER_ID:GNU,Clang>:-Wall;-Wextra;-Wpedantic;-Wconversion;-Wshadow>
  $<$<CXX_COMPILER_ID:MSVC>:/W4;/permissive->)
if(KYD_WARNINGS_AS_ERRORS)
  target_compile_options(kyd_warnings INTERFACE $<$<CXX_COMPILER_ID:GNU,Clang>:-Werror>)
endif()
