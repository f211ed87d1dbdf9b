# Boost is used for its headers alone. The folder that the compiler gets holds nothing but a link
# to them: the host's other headers must never reach a compiler for Windows.
find_path(THR_BOOST_DIR boost/optional.hpp PATHS /usr/include
          NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH DOC "folder that holds the boost headers")
if(NOT THR_BOOST_DIR)
  message(FATAL_ERROR "Boost headers not found: install libboost-dev or set THR_BOOST_DIR")
endif()
file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/boost-include)
file(CREATE_LINK ${THR_BOOST_DIR}/boost ${PROJECT_BINARY_DIR}/boost-include/boost SYMBOLIC)

add_library(thr_boost INTERFACE)
target_include_directories(thr_boost SYSTEM INTERFACE ${PROJECT_BINARY_DIR}/boost-include)
target_compile_definitions(thr_boost INTERFACE BOOST_ENABLE_ASSERT_HANDLER)
