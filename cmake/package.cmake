# What cmake --install and the package thr-<version>-win64.zip hold, and the target docs.

# --- import libraries ---------------------------------------------------------------------------

# thr.lib is for toolchains that do not read MinGW's import library.
find_program(THR_DLLTOOL llvm-dlltool DOC "makes thr.lib")
if(NOT THR_DLLTOOL)
  message(FATAL_ERROR "llvm-dlltool not found: install llvm or set THR_DLLTOOL")
endif()
set(all_exports ${PROJECT_BINARY_DIR}/thr/exports.def)
set(def ${CMAKE_ARCHIVE_OUTPUT_DIRECTORY}/thr.def)
set(lib ${CMAKE_ARCHIVE_OUTPUT_DIRECTORY}/thr.lib)
target_link_options(thr PRIVATE -Wl,--output-def,${all_exports})
add_custom_command(OUTPUT ${def} ${lib}
  COMMAND ${CMAKE_COMMAND} -DFROM=${all_exports} -DTO=${def}
          -P ${PROJECT_SOURCE_DIR}/cmake/make_def.cmake
  COMMAND ${THR_DLLTOOL} -m i386:x86-64 -d ${def} -l ${lib}
  DEPENDS thr cmake/make_def.cmake
  VERBATIM)
add_custom_target(thr_lib ALL DEPENDS ${def} ${lib})

# --- manual -------------------------------------------------------------------------------------

find_program(THR_DOXYGEN doxygen DOC "makes the manual")
if(NOT THR_DOXYGEN)
  message(FATAL_ERROR "doxygen not found: install doxygen or set THR_DOXYGEN")
endif()
set(public_headers thr/thr.h thr/thr_classes.h thr/thr_exception.h)
list(TRANSFORM public_headers PREPEND ${PROJECT_SOURCE_DIR}/)
configure_file(docs/Doxyfile.in docs/Doxyfile @ONLY)
set(manual ${PROJECT_BINARY_DIR}/docs/html)
add_custom_target(docs
  COMMAND ${CMAKE_COMMAND} -E rm -rf ${manual}
  COMMAND ${THR_DOXYGEN} ${PROJECT_BINARY_DIR}/docs/Doxyfile
  COMMAND ${CMAKE_COMMAND} -DDEF=${def} -DTAGS=${PROJECT_BINARY_DIR}/docs/thr.tag
          -P ${PROJECT_SOURCE_DIR}/cmake/check_manual.cmake
  COMMAND ${CMAKE_COMMAND} -DTAGS=${PROJECT_BINARY_DIR}/docs/thr.tag -DHTML=${manual}
          -P ${PROJECT_SOURCE_DIR}/cmake/search_headings.cmake
  DEPENDS ${def}
  WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
  COMMENT "Making the manual ${manual}"
  VERBATIM)

# --- installed files ----------------------------------------------------------------------------

set(doc share/doc/thr)
install(TARGETS thr RUNTIME DESTINATION bin ARCHIVE DESTINATION lib)
install(FILES $<TARGET_FILE:thr>.debug DESTINATION bin)
install(PROGRAMS ${THR_RUNTIME_DLLS} DESTINATION bin)
# The compiler's package ships its runtime with debug information, ten times the size.
foreach(dll ${THR_RUNTIME_DLLS})
  get_filename_component(name ${dll} NAME)
  install(CODE "execute_process(COMMAND ${CMAKE_OBJCOPY} --strip-unneeded
    \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/bin/${name}\" COMMAND_ERROR_IS_FATAL ANY)")
endforeach()
# Their terms, as the compiler's packages tell them.
foreach(package gcc-mingw-w64-base mingw-w64-common)
  install(FILES /usr/share/doc/${package}/copyright DESTINATION ${doc}/licenses
          RENAME ${package}.txt OPTIONAL)
endforeach()
install(FILES ${def} ${lib} DESTINATION lib)
install(FILES ${public_headers} DESTINATION include/thr)

include(CMakePackageConfigHelpers)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/thr-config-version.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES cmake/thr-config.cmake ${PROJECT_BINARY_DIR}/thr-config-version.cmake
        DESTINATION lib/cmake/thr)

# Every program and plug-in of the examples, and their sources, which build against the package.
get_property(folders DIRECTORY examples PROPERTY SUBDIRECTORIES)
foreach(folder examples ${folders})
  get_property(examples DIRECTORY ${folder} PROPERTY BUILDSYSTEM_TARGETS)
  foreach(example ${examples})
    get_target_property(type ${example} TYPE)
    if(type MATCHES "^(EXECUTABLE|SHARED_LIBRARY|MODULE_LIBRARY)$")
      install(PROGRAMS $<TARGET_FILE:${example}> DESTINATION bin)
    endif()
  endforeach()
endforeach()
install(DIRECTORY examples DESTINATION ${doc})

# Without the marks of the manual's links.
file(READ docs/manual/using.md using)
string(REGEX REPLACE " {#[a-z_]+}" "" using "${using}")
file(WRITE ${PROJECT_BINARY_DIR}/docs/README.md "${using}")
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS docs/manual/using.md)
install(FILES ${PROJECT_BINARY_DIR}/docs/README.md DESTINATION ${doc})
install(FILES CHANGELOG.md SECURITY.md DESTINATION ${doc})
install(CODE "execute_process(COMMAND \"${CMAKE_COMMAND}\" --build \"${PROJECT_BINARY_DIR}\"
  --target docs COMMAND_ERROR_IS_FATAL ANY)")
install(DIRECTORY ${manual}/ DESTINATION ${doc}/manual)

# --- package ------------------------------------------------------------------------------------

set(CPACK_GENERATOR ZIP)
set(CPACK_PACKAGE_NAME thr)
set(CPACK_PACKAGE_VENDOR Velkora)
set(CPACK_PACKAGE_FILE_NAME thr-${PROJECT_VERSION}-win64)
set(CPACK_VERBATIM_VARIABLES ON)
include(CPack)
