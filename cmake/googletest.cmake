# GoogleTest, built for the target from Debian's sources. It does not link thr_options: this
# project's warnings are not its own.
find_path(THR_GTEST_DIR src/gtest-all.cc PATHS /usr/src/googletest/googletest
          NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH DOC "folder of GoogleTest's sources")
if(NOT THR_GTEST_DIR)
  message(FATAL_ERROR "GoogleTest sources not found: install googletest or set THR_GTEST_DIR")
endif()

add_library(gtest STATIC EXCLUDE_FROM_ALL ${THR_GTEST_DIR}/src/gtest-all.cc)
target_include_directories(gtest SYSTEM PUBLIC ${THR_GTEST_DIR}/include PRIVATE ${THR_GTEST_DIR})
# std::mutex is built on it; only GCC links it unasked.
target_link_libraries(gtest PUBLIC winpthread)
