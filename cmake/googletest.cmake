# GoogleTest: built for the target from its sources, or a library that is installed. Without either
# thr_has_gtest is false. It does not link thr_options: this project's warnings are not its own.
set(thr_has_gtest TRUE)
if(EXISTS "${THR_GTEST_DIR}/src/gtest-all.cc")
  add_library(gtest STATIC EXCLUDE_FROM_ALL ${THR_GTEST_DIR}/src/gtest-all.cc)
  target_include_directories(gtest SYSTEM PUBLIC ${THR_GTEST_DIR}/include PRIVATE ${THR_GTEST_DIR})
  # std::mutex is built on it; only GCC links it unasked.
  target_link_libraries(gtest PUBLIC winpthread)
else()
  find_package(GTest QUIET)
  if(GTest_FOUND)
    add_library(gtest ALIAS GTest::gtest)
  else()
    set(thr_has_gtest FALSE)
  endif()
endif()
