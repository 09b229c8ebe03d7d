# What the checks of the includes share: the sources of the reference host and the tool, relative
# to SOURCE_DIR, and the headers a source includes in quotes.
file(GLOB_RECURSE host_and_tool_sources RELATIVE ${SOURCE_DIR}
     ${SOURCE_DIR}/cli/*.cc ${SOURCE_DIR}/cli/*.h ${SOURCE_DIR}/tool/*.cc ${SOURCE_DIR}/tool/*.h
     ${SOURCE_DIR}/util/*.cc ${SOURCE_DIR}/util/*.h ${SOURCE_DIR}/refhost/*.cc ${SOURCE_DIR}/refhost/*.h)

# Sets "result" to the paths that SOURCE_DIR/"source" includes as #include "PATH", in order.
function(quoted_includes source result)
  file(STRINGS ${SOURCE_DIR}/${source} lines REGEX "^#include \"")
  set(included "")
  foreach(line IN LISTS lines)
    string(REGEX REPLACE "^#include \"([^\"]+)\".*" "\\1" path "${line}")
    list(APPEND included ${path})
  endforeach()
  set(${result} ${included} PARENT_SCOPE)
endfunction()
