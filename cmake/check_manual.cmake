# cmake -DDEF=thr.def -DTAGS=file -P check_manual.cmake, in the source folder
# What Doxygen can't know: the manual has every plain name that the library exports, and the page of
# reports has every text that its sources report.
file(READ ${TAGS} tags)
file(STRINGS ${DEF} exports REGEX "^    ")
foreach(export ${exports})
  string(REGEX REPLACE "^ +| DATA$" "" name ${export})
  string(FIND "${tags}" "<name>${name}</name>" position)
  if(position EQUAL -1)
    message(SEND_ERROR "${name} is exported, and missing in the manual")
  endif()
endforeach()

file(READ docs/manual/reports.md page)
file(GLOB sources thr/*.cpp thr/thr_owner.h)
set(count 0)
foreach(source ${sources})
  file(READ ${source} text)
  # the condition itself; or the first literal, up to a placeholder or line break
  string(REGEX MATCHALL "THR_(CHECK|ASSERT)\\([^\n]*\\);" conditions "${text}")
  string(REGEX MATCHALL
    "(THR_[A-Z0-9_]*(_AS|_WIN32|_HANDLE)\\([^\";]*|thr_debug_message\\(|perror\\(|[ (]fail\\(|fprintf\\(stderr, )\"[^\"%\\]+"
    literals "${text}")
  foreach(found ${conditions} ${literals})
    string(REGEX REPLACE "^THR_(CHECK|ASSERT)\\((.*)\\)$" "\\2" found "${found}")
    string(REGEX REPLACE "^[^\"]*\"" "" found "${found}")
    string(FIND "${page}" "`${found}" position)
    if(position EQUAL -1)
      message(SEND_ERROR "${source} reports \"${found}\", which is missing in docs/manual/reports.md")
    endif()
    math(EXPR count "${count} + 1")
  endforeach()
endforeach()
if(count LESS 80)
  message(SEND_ERROR "only ${count} reports were found in the sources")
endif()
