# Defines the target thr::thr, and thr_RUNTIME_DLLS: the DLLs that a program needs beside it,
# thr.dll and the C++ runtime that it shares with its hosts.
get_property(thr_languages GLOBAL PROPERTY ENABLED_LANGUAGES)
if(C IN_LIST thr_languages)
  set(thr_language C)
else()
  set(thr_language CXX)
endif()
include(CMakePushCheckState)
include(CheckSourceCompiles)
cmake_push_check_state(RESET)
set(CMAKE_REQUIRED_QUIET ON)
check_source_compiles(${thr_language} "
  #if !defined _WIN32 || !(defined __x86_64__ || defined _M_X64) || defined _M_ARM64EC
  #error
  #endif
  int main(void) { return 0; }" THR_COMPILER_IS_FOR_X64)
cmake_pop_check_state()
unset(thr_language)
unset(thr_languages)
if(NOT THR_COMPILER_IS_FOR_X64)
  set(thr_FOUND FALSE)
  set(thr_NOT_FOUND_MESSAGE "thr is for Windows on x64, and the compiler is not")
  return()
endif()

get_filename_component(thr_prefix "${CMAKE_CURRENT_LIST_DIR}/../../.." ABSOLUTE)
set(thr_RUNTIME_DLLS)
foreach(dll thr libstdc++-6 libgcc_s_seh-1 libwinpthread-1)
  list(APPEND thr_RUNTIME_DLLS "${thr_prefix}/bin/${dll}.dll")
endforeach()

if(NOT TARGET thr::thr)
  add_library(thr::thr SHARED IMPORTED)
  set_target_properties(thr::thr PROPERTIES
    IMPORTED_LOCATION "${thr_prefix}/bin/thr.dll"
    INTERFACE_INCLUDE_DIRECTORIES "${thr_prefix}/include")
  if(MSVC OR "${CMAKE_C_SIMULATE_ID}${CMAKE_CXX_SIMULATE_ID}" MATCHES MSVC)
    set_target_properties(thr::thr PROPERTIES IMPORTED_IMPLIB "${thr_prefix}/lib/thr.lib")
  else()
    set_target_properties(thr::thr PROPERTIES IMPORTED_IMPLIB "${thr_prefix}/lib/libthr.dll.a")
  endif()
endif()
unset(thr_prefix)
