# Defines the target thr::thr, and thr_RUNTIME_DLLS: the DLLs that a program needs beside it, thr.dll
# and the C++ runtime that it shares with its hosts.
if(NOT WIN32 OR NOT CMAKE_SIZEOF_VOID_P EQUAL 8)
  set(thr_FOUND FALSE)
  set(thr_NOT_FOUND_MESSAGE "thr is a library for 64-bit Windows")
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
  if(MSVC)
    set_target_properties(thr::thr PROPERTIES IMPORTED_IMPLIB "${thr_prefix}/lib/thr.lib")
  else()
    set_target_properties(thr::thr PROPERTIES IMPORTED_IMPLIB "${thr_prefix}/lib/libthr.dll.a")
  endif()
endif()
unset(thr_prefix)
