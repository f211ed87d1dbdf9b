# Cross-compiles for 64-bit Windows with the GCC of MinGW-w64, as Debian names it, for the C runtime
# msvcrt, and runs what it builds under Wine. A file that includes this one may name another target.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

if(NOT thr_target)
  set(thr_target x86_64-w64-mingw32)
  set(thr_flavour -posix)
endif()
set(CMAKE_C_COMPILER ${thr_target}-gcc${thr_flavour})
set(CMAKE_CXX_COMPILER ${thr_target}-g++${thr_flavour})
set(CMAKE_RC_COMPILER ${thr_target}-windres)

set(CMAKE_FIND_ROOT_PATH /usr/${thr_target})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(THR_RUNTIME_DIRS /usr/${thr_target}/lib)
# The terms of the runtime DLLs, as Debian's packages tell them; both refer to the third.
set(THR_LICENSES /usr/share/doc/gcc-mingw-w64-base/copyright
  /usr/share/doc/mingw-w64-common/copyright /usr/share/common-licenses/GPL-3)
set(THR_BOOST_DIR /usr/include CACHE PATH "folder that holds the boost headers")
set(THR_GTEST_DIR /usr/src/googletest/googletest CACHE PATH "folder of GoogleTest's sources")

set(CMAKE_CROSSCOMPILING_EMULATOR /usr/lib/wine/wine64)
