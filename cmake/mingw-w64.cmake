# Cross-compiles for 64-bit Windows with MinGW-w64, as Debian names it, for the C runtime msvcrt, and
# runs what it builds under Wine.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(CMAKE_C_COMPILER x86_64-w64-mingw32-gcc-posix)
set(CMAKE_CXX_COMPILER x86_64-w64-mingw32-g++-posix)
set(CMAKE_RC_COMPILER x86_64-w64-mingw32-windres)

set(CMAKE_FIND_ROOT_PATH /usr/x86_64-w64-mingw32)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(THR_RUNTIME_DIRS /usr/x86_64-w64-mingw32/lib)
set(THR_BOOST_DIR /usr/include CACHE PATH "folder that holds the boost headers")
set(THR_GTEST_DIR /usr/src/googletest/googletest CACHE PATH "folder of GoogleTest's sources")

set(CMAKE_CROSSCOMPILING_EMULATOR /usr/lib/wine/wine64)
