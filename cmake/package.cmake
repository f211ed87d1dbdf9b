# What cmake --install and the packages hold, and the targets docs, package and test-bundle.

# --- import libraries ---------------------------------------------------------------------------

# thr.lib is for toolchains that do not read MinGW's import library; thr.def has its names.
set(all_exports ${PROJECT_BINARY_DIR}/thr/exports.def)
set(def ${CMAKE_ARCHIVE_OUTPUT_DIRECTORY}/thr.def)
target_link_options(thr PRIVATE -Wl,--output-def,${all_exports})
add_custom_command(OUTPUT ${def}
  COMMAND ${CMAKE_COMMAND} -DFROM=${all_exports} -DTO=${def}
          -P ${PROJECT_SOURCE_DIR}/cmake/make_def.cmake
  DEPENDS thr cmake/make_def.cmake
  VERBATIM)
set(import_files ${def})
find_program(THR_DLLTOOL llvm-dlltool DOC "makes thr.lib")
if(THR_DLLTOOL)
  set(lib ${CMAKE_ARCHIVE_OUTPUT_DIRECTORY}/thr.lib)
  add_custom_command(OUTPUT ${lib}
    COMMAND ${THR_DLLTOOL} -m i386:x86-64 -d ${def} -l ${lib}
    DEPENDS ${def}
    VERBATIM)
  list(APPEND import_files ${lib})
else()
  message(STATUS "llvm-dlltool not found (install llvm or set THR_DLLTOOL): no thr.lib")
endif()
add_custom_target(thr_lib ALL DEPENDS ${import_files})

# --- manual -------------------------------------------------------------------------------------

set(public_headers thr/thr.h thr/thr_classes.h thr/thr_exception.h)
list(TRANSFORM public_headers PREPEND ${PROJECT_SOURCE_DIR}/)
set(manual ${PROJECT_BINARY_DIR}/docs/html)
find_program(THR_DOXYGEN doxygen DOC "makes the manual")
find_program(THR_DOT dot DOC "draws the pictures of the manual")
if(THR_DOXYGEN)
  set(thr_have_dot YES)
  if(NOT THR_DOT)
    set(thr_have_dot NO)
    message(STATUS "dot not found (install graphviz or set THR_DOT): the manual has no pictures")
  endif()
  get_filename_component(thr_dot_dir "${THR_DOT}" DIRECTORY)
  configure_file(docs/Doxyfile.in docs/Doxyfile @ONLY)
  set(made ${PROJECT_BINARY_DIR}/docs/made)
  set(tags ${PROJECT_BINARY_DIR}/docs/thr.tag)
  set(scripts ${PROJECT_SOURCE_DIR}/cmake)
  file(GLOB_RECURSE manual_sources CONFIGURE_DEPENDS docs/* thr/*)
  add_custom_command(OUTPUT ${made} ${manual}/index.html
    COMMAND ${CMAKE_COMMAND} -E rm -rf ${manual}
    COMMAND ${THR_DOXYGEN} ${PROJECT_BINARY_DIR}/docs/Doxyfile
    COMMAND ${CMAKE_COMMAND} -DDEF=${def} -DTAGS=${tags} -DHTML=${manual}
            -DPICTURES=${thr_have_dot} -P ${scripts}/check_manual.cmake
    COMMAND ${CMAKE_COMMAND} -DTAGS=${tags} -DHTML=${manual} -P ${scripts}/search_headings.cmake
    COMMAND ${CMAKE_COMMAND} -E touch ${made}
    DEPENDS ${def} ${manual_sources} ${PROJECT_BINARY_DIR}/docs/Doxyfile
            ${scripts}/check_manual.cmake ${scripts}/search_headings.cmake
    WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
    COMMENT "Making the manual ${manual}"
    VERBATIM)
  add_custom_target(docs DEPENDS ${made})
  add_dependencies(docs thr_lib)
else()
  message(STATUS "doxygen not found (install doxygen or set THR_DOXYGEN): no manual")
endif()

# --- licences -----------------------------------------------------------------------------------

# The terms of the runtime DLLs: files that the toolchain file names, or those that MSYS2 keeps
# beside the compiler.
set(THR_LICENSE_DIR "" CACHE PATH "folder of the runtime DLLs' licences, where no package has them")
set(licenses ${THR_LICENSES})
if(THR_LICENSE_DIR)
  file(GLOB_RECURSE licenses ${THR_LICENSE_DIR}/*)
elseif(NOT licenses)
  file(GLOB of_gcc ${thr_compiler_dir}/../share/licenses/gcc-libs/*)
  file(GLOB of_mingw ${thr_compiler_dir}/../share/licenses/*winpthread*/*)
  if(of_gcc AND of_mingw)
    set(licenses ${of_gcc} ${of_mingw})
  endif()
endif()
foreach(file ${licenses})
  if(NOT EXISTS ${file})
    set(licenses)
  endif()
endforeach()

if(NOT licenses)
  message(STATUS "no licences of the runtime DLLs found (set THR_LICENSE_DIR): no package")
endif()

# install_licenses(DESTINATION folder [install's other options])
function(install_licenses)
  if(NOT licenses)
    install(CODE "message(FATAL_ERROR \"no licences of the runtime DLLs: \"
      \"name their folder in THR_LICENSE_DIR\")" ${ARGN})
  endif()
  foreach(file ${licenses})
    get_filename_component(name ${file} NAME)
    get_filename_component(folder ${file} DIRECTORY)
    get_filename_component(folder ${folder} NAME)
    install(FILES ${file} RENAME ${folder}-${name}.txt ${ARGN})
  endforeach()
endfunction()

# --- installed files ----------------------------------------------------------------------------

# programs_below(VARIABLE folder): the programs and DLLs that the folder's targets make.
function(programs_below variable folder)
  set(found)
  get_property(targets DIRECTORY ${folder} PROPERTY BUILDSYSTEM_TARGETS)
  foreach(target ${targets})
    get_target_property(type ${target} TYPE)
    if(type MATCHES "^(EXECUTABLE|SHARED_LIBRARY|MODULE_LIBRARY)$")
      list(APPEND found ${target})
    endif()
  endforeach()
  get_property(folders DIRECTORY ${folder} PROPERTY SUBDIRECTORIES)
  foreach(below ${folders})
    programs_below(more ${below})
    list(APPEND found ${more})
  endforeach()
  set(${variable} ${found} PARENT_SCOPE)
endfunction()

set(doc share/doc/thr)
install(TARGETS thr RUNTIME DESTINATION bin ARCHIVE DESTINATION lib)
get_target_property(debug_files thr THR_DEBUG_FILES)
install(FILES ${debug_files} DESTINATION bin)
install(PROGRAMS ${THR_RUNTIME_DLLS} DESTINATION bin)
install_licenses(DESTINATION ${doc}/licenses)
install(FILES ${import_files} DESTINATION lib)
install(FILES ${public_headers} DESTINATION include/thr)

include(CMakePackageConfigHelpers)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/thr-config-version.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES cmake/thr-config.cmake ${PROJECT_BINARY_DIR}/thr-config-version.cmake
        DESTINATION lib/cmake/thr)
configure_file(cmake/thr.pc.in thr.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/thr.pc DESTINATION lib/pkgconfig)

# Every program and plug-in of the examples, and their sources, which build against the package.
programs_below(examples examples)
foreach(example ${examples})
  install(PROGRAMS $<TARGET_FILE:${example}> DESTINATION bin)
endforeach()
install(DIRECTORY examples DESTINATION ${doc})

# Without the marks of the manual's links.
file(READ docs/manual/using.md using)
string(REGEX REPLACE " {#[a-z_]+}" "" using "${using}")
file(WRITE ${PROJECT_BINARY_DIR}/docs/README.md "${using}")
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS docs/manual/using.md)
install(FILES ${PROJECT_BINARY_DIR}/docs/README.md DESTINATION ${doc})
install(FILES CHANGELOG.md SECURITY.md DESTINATION ${doc})
if(TARGET docs)
  # The packaging has made it already: no build runs inside another.
  install(CODE "if(NOT THR_PACKAGING)
    execute_process(COMMAND \"${CMAKE_COMMAND}\" --build \"${PROJECT_BINARY_DIR}\"
      --target docs COMMAND_ERROR_IS_FATAL ANY)
  endif()")
  install(DIRECTORY ${manual}/ DESTINATION ${doc}/manual)
endif()

# --- packages -----------------------------------------------------------------------------------

include(CheckSymbolExists)
check_symbol_exists(_UCRT stdlib.h thr_is_for_ucrt)
set(package_name thr-${PROJECT_VERSION}-win64)
if(thr_is_for_ucrt)
  string(APPEND package_name -ucrt)
endif()

# What CPack left in an older build folder would reserve the name of the target.
file(REMOVE ${PROJECT_BINARY_DIR}/CPackConfig.cmake ${PROJECT_BINARY_DIR}/CPackSourceConfig.cmake)

# add_package(TARGET NAME COMPONENT target...): TARGET builds these and what is installed of them
# into NAME.zip.
function(add_package target name component)
  add_custom_target(${target}
    COMMAND ${CMAKE_COMMAND} -DNAME=${name} -DCOMPONENT=${component}
            -P ${PROJECT_SOURCE_DIR}/cmake/make_zip.cmake
    WORKING_DIRECTORY ${PROJECT_BINARY_DIR}
    COMMENT "Making the package ${PROJECT_BINARY_DIR}/${name}.zip"
    VERBATIM)
  add_dependencies(${target} ${ARGN})
endfunction()

set(outputs thr thr_lib thr_runtime ${examples})
if(TARGET docs)
  list(APPEND outputs docs)
endif()
add_package(package ${package_name} Unspecified ${outputs})

# --- test bundle --------------------------------------------------------------------------------

# All programs, and run_tests.cmd, for a machine that has nothing else of this project.
if(TARGET test_support)
  set(in_bundle COMPONENT tests EXCLUDE_FROM_ALL)
  set(programs thr ${examples})
  foreach(folder tests bench)
    programs_below(more ${folder})
    list(APPEND programs ${more})
  endforeach()
  foreach(program ${programs})
    get_target_property(folder ${program} RUNTIME_OUTPUT_DIRECTORY)
    file(RELATIVE_PATH folder ${CMAKE_RUNTIME_OUTPUT_DIRECTORY} ${folder})
    install(PROGRAMS $<TARGET_FILE:${program}> DESTINATION bin/${folder} ${in_bundle})
  endforeach()
  install(FILES ${debug_files} DESTINATION bin ${in_bundle})
  install(PROGRAMS ${THR_RUNTIME_DLLS} DESTINATION bin ${in_bundle})
  install_licenses(DESTINATION licenses ${in_bundle})

  get_property(tests DIRECTORY tests PROPERTY TESTS)
  list(TRANSFORM tests REPLACE "^thr_bench_calls$" "thr_bench --calls")
  list(JOIN tests "\n" tests)
  file(WRITE ${PROJECT_BINARY_DIR}/bundle/programs.txt "${tests}\n")
  configure_file(scripts/run_tests.cmd bundle/run_tests.cmd @ONLY NEWLINE_STYLE CRLF)
  install(FILES ${PROJECT_BINARY_DIR}/bundle/programs.txt
                ${PROJECT_BINARY_DIR}/bundle/run_tests.cmd DESTINATION . ${in_bundle})
  install(FILES docs/windows.md DESTINATION . RENAME README.md ${in_bundle})
  add_package(test-bundle ${package_name}-tests tests ${programs} fixtures thr_runtime)
endif()
