# The warnings that our own code is free of. Third-party code does not link this target.
add_library(kyd_warnings INTERFACE)
add_library(kyd::warnings ALIAS kyd_warnings)
target_compile_options(kyd_warnings INTERFACE
  $<$<CXX_COMPILER_ID:GNU,Clang>:-Wall;-Wextra;-Wpedantic;-Wconversion;-Wshadow;-Werror>
  $<$<CXX_COMPILER_ID:MSVC>:/W4;/permissive->)
