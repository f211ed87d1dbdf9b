# As mingw-w64.cmake, for the C runtime UCRT, which Visual C++ programs use.
include(${CMAKE_CURRENT_LIST_DIR}/mingw-w64.cmake)

set(CMAKE_C_COMPILER x86_64-w64-mingw32ucrt-gcc)
set(CMAKE_CXX_COMPILER x86_64-w64-mingw32ucrt-g++)
set(CMAKE_RC_COMPILER x86_64-w64-mingw32ucrt-windres)
find_program(thr_ucrt_compiler ${CMAKE_CXX_COMPILER} NO_CACHE)
if(NOT thr_ucrt_compiler)
  message(FATAL_ERROR "${CMAKE_CXX_COMPILER} not found: install g++-mingw-w64-ucrt64, which is there \
from Debian 13 on")
endif()

set(CMAKE_FIND_ROOT_PATH /usr/x86_64-w64-mingw32ucrt)
set(THR_RUNTIME_DIRS /usr/x86_64-w64-mingw32ucrt/lib)
