# Requirements of the package builds: the same commit gives the same bytes in every folder, each program has
# a build id that its debug symbols repeat, and a list names everything that is linked in.
option(KYD_REPRODUCIBLE "Keep the build's folders out of the programs, and list what is linked in" OFF)
if(NOT KYD_REPRODUCIBLE)
  return()
endif()

if(MSVC)
  # Replaces dates by hashes of the content, and removes the folder from the name of the symbol file.
  add_compile_options(/Brepro)
  add_link_options(/Brepro /PDBALTPATH:%_PDB%)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    add_compile_options(/clang:-ffile-prefix-map=${CMAKE_SOURCE_DIR}=. /clang:-ffile-prefix-map=${CMAKE_BINARY_DIR}=.)
  endif()
  if(VCPKG_INSTALLED_DIR)
    # In the folder of the programs, so that the packages are made from that folder only.
    file(COPY ${VCPKG_INSTALLED_DIR}/${VCPKG_TARGET_TRIPLET}/share DESTINATION ${CMAKE_BINARY_DIR}/bin
         FILES_MATCHING PATTERN vcpkg.spdx.json PATTERN copyright)
  endif()
  return()
endif()

# The last match counts: the build folder usually is inside the source folder. With relative names, a
# debugger that is started in the source folder finds the sources.
add_compile_options(
  -ffile-prefix-map=${kyd_cpprest_prefix}/include=cpprestsdk
  -ffile-prefix-map=${CMAKE_SOURCE_DIR}=.
  -ffile-prefix-map=${CMAKE_BINARY_DIR}=.)

file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/maps)
add_link_options(LINKER:--build-id=sha1
                 "LINKER:-Map=${CMAKE_BINARY_DIR}/maps/$<TARGET_PROPERTY:NAME>.map")
if(WIN32)
  add_link_options(LINKER:--no-insert-timestamp)
endif()
