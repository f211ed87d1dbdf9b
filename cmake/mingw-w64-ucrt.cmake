# As mingw-w64.cmake, for the C runtime UCRT, which Visual C++ programs use.
set(thr_target x86_64-w64-mingw32ucrt)
find_program(thr_ucrt_compiler ${thr_target}-g++ NO_CACHE)
if(NOT thr_ucrt_compiler)
  message(FATAL_ERROR "${thr_target}-g++ not found: install g++-mingw-w64-ucrt64, which is there \
from Debian 13 on")
endif()
include(${CMAKE_CURRENT_LIST_DIR}/mingw-w64.cmake)
