# Boost is used for its headers alone: those of its package, or of a folder. When they are another
# system's, the folder that the compiler gets holds nothing but a link to them: the other headers
# there must never reach it.
add_library(thr_boost INTERFACE)
if(NOT THR_BOOST_DIR)
  find_package(Boost QUIET CONFIG)
  if(TARGET Boost::headers)
    get_target_property(THR_BOOST_DIR Boost::headers INTERFACE_INCLUDE_DIRECTORIES)
  endif()
endif()
if(NOT THR_BOOST_DIR)
  find_path(THR_BOOST_DIR boost/optional.hpp DOC "folder that holds the boost headers")
endif()
if(NOT EXISTS "${THR_BOOST_DIR}/boost/optional.hpp")
  message(FATAL_ERROR "Boost headers not found: install Boost (Debian: libboost-dev) or set "
                      "THR_BOOST_DIR")
endif()
if(CMAKE_CROSSCOMPILING)
  file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/boost-include)
  file(CREATE_LINK ${THR_BOOST_DIR}/boost ${PROJECT_BINARY_DIR}/boost-include/boost SYMBOLIC)
  target_include_directories(thr_boost SYSTEM INTERFACE ${PROJECT_BINARY_DIR}/boost-include)
else()
  target_include_directories(thr_boost SYSTEM INTERFACE ${THR_BOOST_DIR})
endif()
target_compile_definitions(thr_boost INTERFACE BOOST_ENABLE_ASSERT_HANDLER)
# Its assertions name its files relative to its folder.
target_compile_options(thr_boost INTERFACE -fmacro-prefix-map=${THR_BOOST_DIR}/=)
# Newer clangs warn, by a directive, of a header of their own that Boost includes.
if(CMAKE_CXX_COMPILER_ID MATCHES Clang)
  target_compile_options(thr_boost INTERFACE "-Wno-#warnings")
endif()
