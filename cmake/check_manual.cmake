# cmake -DDEF=thr.def -DTAGS=file -DHTML=folder -DPICTURES=bool -P check_manual.cmake, in the source
# folder
# What Doxygen can't know: the manual has every plain name that the library exports, and its
# pictures; the page of reports has every text that the sources report, and every report that it,
# the other pages or the public headers quote is one that the sources make.
cmake_policy(VERSION 3.21)
file(READ ${TAGS} tags)
file(STRINGS ${DEF} exports REGEX "^    ")
foreach(export ${exports})
  string(REGEX REPLACE "^ +| DATA$" "" name ${export})
  string(FIND "${tags}" "<name>${name}</name>" position)
  if(position EQUAL -1)
    message(SEND_ERROR "${name} is exported, and missing in the manual: add its Doxygen comment")
  endif()
endforeach()

file(GLOB pictures docs/manual/*.dot)
foreach(picture ${pictures})
  get_filename_component(name ${picture} NAME_WE)
  if(PICTURES AND NOT EXISTS ${HTML}/dot_${name}.svg)
    message(SEND_ERROR "no page shows the picture ${picture}")
  endif()
endforeach()

# --- from the sources to the page ---------------------------------------------------------------

file(READ docs/manual/reports.md page)
file(GLOB sources thr/*.cpp thr/thr_owner.h)
set(all)
set(count 0)
foreach(source ${sources})
  file(READ ${source} text)
  string(APPEND all "${text}")
  # the condition itself; or the first literal, up to a placeholder or line break
  string(REGEX MATCHALL "THR_(CHECK|ASSERT)\\([^\n]*\\);" conditions "${text}")
  string(REGEX MATCHALL
    "(THR_[A-Z0-9_]*(_AS|_WIN32|_HANDLE)\\([^\";]*|thr_debug_message\\(|\
perror\\(|[ (]fail\\(|fprintf\\(stderr, )\"[^\"%\\]+"
    literals "${text}")
  foreach(found ${conditions} ${literals})
    string(REGEX REPLACE "^THR_(CHECK|ASSERT)\\((.*)\\)$" "\\2" found "${found}")
    string(REGEX REPLACE "^[^\"]*\"" "" found "${found}")
    string(FIND "${page}" "`${found}" position)
    if(position EQUAL -1)
      message(SEND_ERROR "${source} reports \"${found}\": add it to docs/manual/reports.md")
    endif()
    math(EXPR count "${count} + 1")
  endforeach()
endforeach()
if(count LESS 80)
  message(SEND_ERROR "only ${count} reports were found in the sources")
endif()

# --- from what is quoted to the sources ---------------------------------------------------------

# The runtime's own words around a report of the library.
set(of_the_runtime "Assertion failed: ")

# A quoted text is a whole condition, a whole literal, or the beginning of one that ends where a
# placeholder or a condition of the platform comes in.
function(expect_report quoted where)
  if(quoted STREQUAL of_the_runtime)
    return()
  endif()
  foreach(form "THR_CHECK(${quoted})" "THR_ASSERT(${quoted})" "\"${quoted}\"" "\"${quoted}%"
          "\"${quoted}\\" "%s${quoted}\\n")
    string(FIND "${all}" "${form}" position)
    if(NOT position EQUAL -1)
      return()
    endif()
  endforeach()
  message(SEND_ERROR "${where} quotes the report \"${quoted}\", which no source makes: reword it")
endfunction()

string(REGEX REPLACE "\"\n *\"" "" all "${all}") # literals over several lines
string(REGEX MATCHALL "\n[|] [^|]*`[^|]* [|]" cells "${page}")
foreach(cell ${cells})
  string(REGEX MATCHALL "``[^`]+``|`[^`]+`" quotes "${cell}")
  foreach(quoted ${quotes})
    string(REGEX REPLACE "^`+|`+$" "" quoted "${quoted}")
    expect_report("${quoted}" docs/manual/reports.md)
  endforeach()
endforeach()

# In the headers every text that is called an internal error or an OS failure; everywhere else, and
# in them, every condition.
file(GLOB pages thr/thr.h thr/thr_classes.h thr/thr_exception.h docs/manual/*.md docs/*.md)
foreach(file ${pages})
  file(READ ${file} text)
  set(named)
  if(file MATCHES "[.]h$")
    string(REGEX REPLACE "\n *[*] +" " " text "${text}")
    string(REGEX MATCHALL
      "([Ii]nternal error|OS +failure)s?( report)?[^\".]?[^\".]?\"[^\"]+\"( and \"[^\"]+\")?"
      named "${text}")
    string(REGEX MATCHALL "\"[^\"]+\"" named "${named}")
  endif()
  string(REGEX MATCHALL "[`\"][a-z_>*-]+(\\(\\))? (!=|==|>=|>) [^`\"\n]+[`\"]" conditions "${text}")
  foreach(quoted ${named} ${conditions})
    string(REGEX REPLACE "^[`\"]|[`\"]$" "" quoted "${quoted}")
    expect_report("${quoted}" ${file})
  endforeach()
endforeach()
