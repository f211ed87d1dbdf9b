# thr_harden(DLL OBJECTS)
# OBJECTS, of which DLL is made, use a stack protector where the compiler has one, and checked
# functions for texts and memory where the toolchain has them: in the C runtime, or in a static
# library of the compiler. What both need besides is a source of their own.
include(CheckCXXCompilerFlag)
include(CheckCXXSourceCompiles)

function(thr_link_checked_functions libraries result)
  set(CMAKE_REQUIRED_LIBRARIES ${libraries})
  check_cxx_source_compiles("
    #include <cstddef>
    extern \"C\" void *__memcpy_chk(void *, const void *, size_t, size_t);
    extern \"C\" void __chk_fail() {}
    int main(int argc, char **argv) { return __memcpy_chk(argv, argv, argc, 8) == nullptr; }"
    ${result})
endfunction()

function(thr_harden dll objects)
  check_cxx_compiler_flag(-fstack-protector-strong THR_HAS_STACK_PROTECTOR)
  if(NOT THR_HAS_STACK_PROTECTOR)
    return()
  endif()
  target_sources(${objects} PRIVATE thr_stack_guard.cpp)
  target_compile_options(${objects} PRIVATE -fstack-protector-strong)
  set_source_files_properties(thr_stack_guard.cpp PROPERTIES
    COMPILE_OPTIONS -fno-stack-protector)
  thr_link_checked_functions("" THR_RUNTIME_HAS_CHECKED_FUNCTIONS)
  if(NOT THR_RUNTIME_HAS_CHECKED_FUNCTIONS)
    thr_link_checked_functions(-l:libssp.a THR_SSP_HAS_CHECKED_FUNCTIONS)
    if(THR_SSP_HAS_CHECKED_FUNCTIONS)
      target_link_libraries(${dll} PRIVATE -l:libssp.a)
      target_link_libraries(${objects} PUBLIC -l:libssp.a)
    endif()
  endif()
  if(THR_RUNTIME_HAS_CHECKED_FUNCTIONS OR THR_SSP_HAS_CHECKED_FUNCTIONS)
    target_compile_definitions(${objects} PRIVATE _FORTIFY_SOURCE=2)
  endif()
endfunction()
