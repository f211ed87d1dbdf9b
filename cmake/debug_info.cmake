# thr_separate_debug_information(DLL OBJECTS)
# Compiles OBJECTS, of which DLL is made, with debug information, and keeps it out of the DLL: it
# goes into a file of the DLL's name with ".debug" added, which gdb finds by the link that the DLL
# carries, and into a PDB for Windows debuggers where compiler and linker can write one. The DLL
# keeps no symbols.
function(thr_separate_debug_information dll objects)
  set(file ${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/${dll}.dll)
  set(outputs ${file}.debug)
  target_compile_options(${objects} PRIVATE -g -fdebug-prefix-map=${PROJECT_BINARY_DIR}=.)
  if(THR_LINKS_BY_LLD AND CMAKE_CXX_COMPILER_ID MATCHES Clang AND CMAKE_GENERATOR MATCHES Ninja)
    set(pdb ${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/${dll}.pdb)
    list(APPEND outputs ${pdb})
    target_compile_options(${objects} PRIVATE -gdwarf -gcodeview -ffile-compilation-dir=.)
    # Ninja compiles and links in the build folder: all that is ours is named relative to it.
    file(RELATIVE_PATH relative_pdb ${CMAKE_BINARY_DIR} ${pdb})
    target_link_options(${dll} PRIVATE
      -Wl,--pdb=${relative_pdb},-Xlink=-pdbaltpath:${dll}.pdb,-Xlink=-pdbsourcepath:.)
    # What is shipped is built by cross compilers, and is the same in whatever folder.
    if(CMAKE_HOST_UNIX)
      set(launcher bash ${PROJECT_SOURCE_DIR}/cmake/relative_paths.sh ${CMAKE_BINARY_DIR}
        ${PROJECT_SOURCE_DIR})
      set_target_properties(${objects} PROPERTIES CXX_COMPILER_LAUNCHER "${launcher}")
      set_target_properties(${dll} PROPERTIES CXX_LINKER_LAUNCHER "${launcher}")
    endif()
  endif()
  set_target_properties(${dll} PROPERTIES THR_DEBUG_FILES "${outputs}") # for the packaging
  # -p keeps the linker's time stamp.
  add_custom_command(TARGET ${dll} POST_BUILD
    COMMAND ${CMAKE_OBJCOPY} -p --only-keep-debug ${file} ${file}.debug
    COMMAND ${CMAKE_OBJCOPY} -p --strip-all ${file}
    COMMAND ${CMAKE_OBJCOPY} -p --add-gnu-debuglink=${file}.debug ${file}
    BYPRODUCTS ${outputs}
    VERBATIM)
endfunction()
