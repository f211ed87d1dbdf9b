# The C++ runtime is shared, so that exceptions and the process-wide handlers work across the
# library and its hosts; its DLLs lie beside thr.dll. They come from where the compiler says, from
# the folders that the toolchain file names, or from beside the compiler.
get_filename_component(compiler_folder ${CMAKE_CXX_COMPILER} DIRECTORY)
foreach(dll libstdc++-6.dll libgcc_s_seh-1.dll libwinpthread-1.dll)
  execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=${dll}
                  OUTPUT_VARIABLE path OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
  if(NOT IS_ABSOLUTE "${path}" OR NOT EXISTS "${path}")
    find_file(THR_${dll} ${dll} PATHS ${THR_RUNTIME_DIRS} ${compiler_folder}
              NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH DOC "a DLL of the C++ runtime")
    set(path ${THR_${dll}})
  endif()
  if(NOT path)
    message(FATAL_ERROR "${dll} not found: name its folder in THR_RUNTIME_DIRS")
  endif()
  list(APPEND THR_RUNTIME_DLLS ${path})
endforeach()
file(COPY ${THR_RUNTIME_DLLS} DESTINATION ${CMAKE_RUNTIME_OUTPUT_DIRECTORY})
