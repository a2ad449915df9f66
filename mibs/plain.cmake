# A MIB's second form, for the stock tools where there are no base modules: it imports nothing.

# What the tools' parser knows by itself.
set(built_in MODULE-IDENTITY OBJECT-TYPE NOTIFICATION-TYPE TEXTUAL-CONVENTION MODULE-COMPLIANCE
             OBJECT-GROUP NOTIFICATION-GROUP Integer32 Unsigned32 Counter32 Counter64 Gauge32
             IpAddress TimeTicks)

# Puts definitions in the place of the imports of `text`: each imported name that is not built in
# has its definition in plain/NAME.txt.
function(plain_form name text result)
  string(REGEX MATCH "\nIMPORTS[^;]*;\n" imports "${text}")
  string(REGEX REPLACE "FROM +[A-Za-z0-9-]+|IMPORTS" "" symbols "${imports}")
  string(REGEX MATCHALL "[A-Za-z][A-Za-z0-9-]*" symbols "${symbols}")
  if(NOT symbols)
    message(FATAL_ERROR "${name} has no imports")
  endif()
  list(REMOVE_ITEM symbols ${built_in})
  set(definitions "
-- The form of this module for tools that have no base modules: what the full
-- form imports is defined here. Linters and compilers want the full form.
")
  foreach(symbol IN LISTS symbols)
    set(file ${CMAKE_CURRENT_SOURCE_DIR}/plain/${symbol}.txt)
    if(NOT EXISTS ${file})
      message(FATAL_ERROR "${name} imports ${symbol}, for which there is no ${file}")
    endif()
    file(READ ${file} definition)
    string(APPEND definitions "\n${definition}")
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${file})
  endforeach()
  string(REPLACE "${imports}" "${definitions}" text "${text}")
  set(${result} "${text}" PARENT_SCOPE)
endfunction()
