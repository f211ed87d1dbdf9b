# The C++ runtime is shared, so that exceptions and the process-wide handlers work across the
# library and its hosts; its DLLs lie beside thr.dll. Debian names the compiler by its flavour and
# version, so the compiler that shares its folders is asked where they are.
foreach(dll libstdc++-6.dll libgcc_s_seh-1.dll libwinpthread-1.dll)
  execute_process(COMMAND x86_64-w64-mingw32-g++-posix -print-file-name=${dll}
                  OUTPUT_VARIABLE path OUTPUT_STRIP_TRAILING_WHITESPACE)
  if(NOT IS_ABSOLUTE "${path}")
    set(path /usr/x86_64-w64-mingw32/lib/${dll})
  endif()
  list(APPEND THR_RUNTIME_DLLS ${path})
endforeach()
file(COPY ${THR_RUNTIME_DLLS} DESTINATION ${CMAKE_RUNTIME_OUTPUT_DIRECTORY})
