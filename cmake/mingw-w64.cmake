# What is shipped: the headers, libraries and runtime of mingw-w64-gcc.cmake, compiled by clang and
# linked by lld, which write debug information for Windows debuggers, too.
include(${CMAKE_CURRENT_LIST_DIR}/mingw-w64-gcc.cmake)

# Debian keeps the posix flavour of GCC's runtime where clang does not look for it.
execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=include
                OUTPUT_VARIABLE thr_gcc_include OUTPUT_STRIP_TRAILING_WHITESPACE)
get_filename_component(thr_gcc_dir ${thr_gcc_include} DIRECTORY)
list(PREPEND THR_RUNTIME_DIRS ${thr_gcc_dir})
set(thr_libstdcxx ${thr_gcc_dir}/include/c++)

set(CMAKE_C_COMPILER clang)
set(CMAKE_CXX_COMPILER clang++)
set(CMAKE_OBJCOPY ${thr_target}-objcopy) # clang's does not read every DLL of GCC's runtime
set(CMAKE_C_COMPILER_TARGET ${thr_target})
set(CMAKE_CXX_COMPILER_TARGET ${thr_target})
# GCC's runtime keeps its thread-local variables in GCC's own way.
set(CMAKE_CXX_FLAGS_INIT "-femulated-tls -nostdinc++ -isystem ${thr_libstdcxx} \
-isystem ${thr_libstdcxx}/${thr_target} -isystem ${thr_libstdcxx}/backward")
foreach(kind EXE SHARED MODULE)
  set(CMAKE_${kind}_LINKER_FLAGS_INIT "-fuse-ld=lld -L${thr_gcc_dir} \
-Wno-unused-command-line-argument")
endforeach()
