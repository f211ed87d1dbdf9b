# The C++ runtime is shared, so that exceptions and the process-wide handlers work across the
# library and its hosts; its DLLs lie beside thr.dll. They come from where the compiler says, from
# the folders that the toolchain file names, or from beside the compiler. Compilers' packages ship
# them with debug information, ten times the size: the target thr_runtime copies them without;
# -p keeps their time stamps.
get_filename_component(thr_compiler_dir ${CMAKE_CXX_COMPILER} DIRECTORY)
# llvm-objcopy, which CMake takes beside clang, knows no -p for DLLs and does not read every one.
if(CMAKE_OBJCOPY MATCHES llvm-objcopy)
  find_program(THR_OBJCOPY NAMES ${CMAKE_CXX_COMPILER_TARGET}-objcopy objcopy
               HINTS ${thr_compiler_dir} NO_CMAKE_FIND_ROOT_PATH REQUIRED DOC "GNU objcopy")
  set(CMAKE_OBJCOPY ${THR_OBJCOPY})
endif()
set(THR_RUNTIME_DLLS)
foreach(dll libstdc++-6.dll libgcc_s_seh-1.dll libwinpthread-1.dll)
  execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=${dll}
                  OUTPUT_VARIABLE path OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
  if(NOT IS_ABSOLUTE "${path}" OR NOT EXISTS "${path}")
    find_file(THR_${dll} ${dll} PATHS ${THR_RUNTIME_DIRS} ${thr_compiler_dir}
              NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH DOC "a DLL of the C++ runtime")
    set(path ${THR_${dll}})
  endif()
  if(NOT path)
    message(FATAL_ERROR "${dll} not found: name its folder in THR_RUNTIME_DIRS")
  endif()
  set(copy ${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/${dll})
  add_custom_command(OUTPUT ${copy} DEPENDS ${path}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_RUNTIME_OUTPUT_DIRECTORY}
    COMMAND ${CMAKE_OBJCOPY} -p --strip-unneeded ${path} ${copy}
    VERBATIM)
  list(APPEND THR_RUNTIME_DLLS ${copy})
endforeach()
add_custom_target(thr_runtime ALL DEPENDS ${THR_RUNTIME_DLLS})
