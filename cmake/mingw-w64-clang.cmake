# The same target and runtime as mingw-w64.cmake, compiled by clang and linked by lld: a second
# opinion on warnings and portability.
include(${CMAKE_CURRENT_LIST_DIR}/mingw-w64.cmake)

set(CMAKE_C_COMPILER clang)
set(CMAKE_CXX_COMPILER clang++)
set(CMAKE_C_COMPILER_TARGET x86_64-w64-mingw32)
set(CMAKE_CXX_COMPILER_TARGET x86_64-w64-mingw32)

# Debian keeps the posix flavour of GCC's runtime where clang does not look for it.
execute_process(COMMAND x86_64-w64-mingw32-g++-posix -print-file-name=include
                OUTPUT_VARIABLE thr_gcc_include OUTPUT_STRIP_TRAILING_WHITESPACE)
get_filename_component(thr_gcc_dir ${thr_gcc_include} DIRECTORY)
list(PREPEND THR_RUNTIME_DIRS ${thr_gcc_dir})
set(thr_libstdcxx ${thr_gcc_dir}/include/c++)
# GCC's runtime keeps its thread-local variables in GCC's own way.
set(CMAKE_CXX_FLAGS_INIT "-femulated-tls -nostdinc++ -isystem ${thr_libstdcxx} \
-isystem ${thr_libstdcxx}/x86_64-w64-mingw32 -isystem ${thr_libstdcxx}/backward")
foreach(kind EXE SHARED MODULE)
  set(CMAKE_${kind}_LINKER_FLAGS_INIT "-fuse-ld=lld -L${thr_gcc_dir} \
-Wno-unused-command-line-argument")
endforeach()
