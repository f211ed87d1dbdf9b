# cmake -DNAME=name -DCOMPONENT=component -P make_zip.cmake, in the build folder
# Makes name.zip of what is installed of the component, all below the folder name. The same files
# give the same zip, whenever and wherever they were made. CMake's own archives hold the time at
# which a file was read.
cmake_policy(VERSION 3.21)
find_program(zip zip NO_CACHE)
if(NOT zip)
  message(FATAL_ERROR "zip not found: install zip")
endif()
set(stage ${CMAKE_CURRENT_BINARY_DIR}/packages)
file(REMOVE_RECURSE ${stage}/${NAME} ${NAME}.zip)
execute_process(COMMAND ${CMAKE_COMMAND} -DCMAKE_INSTALL_PREFIX=${stage}/${NAME} -DTHR_PACKAGING=ON
                        -DCMAKE_INSTALL_COMPONENT=${COMPONENT} -P cmake_install.cmake
                OUTPUT_QUIET RESULT_VARIABLE result)
if(result)
  message(FATAL_ERROR "nothing was packed: see above")
endif()
file(GLOB_RECURSE files LIST_DIRECTORIES FALSE RELATIVE ${stage} ${stage}/${NAME}/*)
list(JOIN files "\n" lines)
file(WRITE ${stage}/${NAME}.txt "${lines}\n")
set(ENV{TZ} UTC) # a zip has local times, from 1980 on
foreach(command "xargs;-d;\\n;touch;-d;1980-01-01" "${zip};-qX@;../${NAME}.zip")
  execute_process(COMMAND ${command} INPUT_FILE ${stage}/${NAME}.txt WORKING_DIRECTORY ${stage}
                  COMMAND_ERROR_IS_FATAL ANY)
endforeach()
