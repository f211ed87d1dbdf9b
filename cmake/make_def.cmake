# cmake -DFROM=file -DTO=file -P make_def.cmake
# Makes a module-definition file of the plain names in the one that the linker wrote: sorted and
# without ordinals, which change from build to build. C++ names are for the compiler family that
# made them and use the import library.
file(STRINGS ${FROM} lines)
set(exports)
foreach(line IN LISTS lines)
  if(line MATCHES "^ +\"?((is_)?[Tt][Hh][Rr]_[A-Za-z0-9_]+)\"?( |$)")
    set(name ${CMAKE_MATCH_1})
    if(line MATCHES " DATA( |$)")
      string(APPEND name " DATA")
    endif()
    list(APPEND exports "    ${name}")
  endif()
endforeach()
if(NOT exports)
  message(FATAL_ERROR "${FROM} lists no plain name")
endif()
list(SORT exports)
list(JOIN exports "\n" exports)
file(WRITE ${TO} "LIBRARY thr.dll\nEXPORTS\n${exports}\n")
