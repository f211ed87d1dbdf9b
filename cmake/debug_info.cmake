# thr_separate_debug_information(DLL OBJECTS)
# Compiles OBJECTS, of which DLL is made, with debug information, and keeps it out of the DLL: it
# goes into a file of the DLL's name with ".debug" added, which a debugger finds by the link that
# the DLL carries.
function(thr_separate_debug_information dll objects)
  target_compile_options(${objects} PRIVATE -g -fdebug-prefix-map=${PROJECT_BINARY_DIR}=.)
  set(file $<TARGET_FILE:${dll}>)
  add_custom_command(TARGET ${dll} POST_BUILD
    COMMAND ${CMAKE_OBJCOPY} --only-keep-debug ${file} ${file}.debug
    COMMAND ${CMAKE_OBJCOPY} --strip-debug ${file}
    COMMAND ${CMAKE_OBJCOPY} --add-gnu-debuglink=${file}.debug ${file}
    VERBATIM)
endfunction()
