# Runs an example and compares its exit status, its last lines and what it says on standard error.
#
#   cmake -DSTATUS=... -DLAST_LINES=... -DERROR_LINE=... -DFILES=... -P run_example.cmake -- command
#
# LAST_LINES and ERROR_LINE are regular expressions: of the end of the output, and of the whole of
# standard error, which is empty or one line. FILES are removed before and must be there after.

set(command)
set(in_command FALSE)
foreach(index RANGE 1 ${CMAKE_ARGC})
  if(in_command)
    list(APPEND command "${CMAKE_ARGV${index}}")
  elseif("${CMAKE_ARGV${index}}" STREQUAL "--")
    set(in_command TRUE)
  endif()
endforeach()

if(FILES)
  file(REMOVE ${FILES})
endif()
execute_process(COMMAND ${command} RESULT_VARIABLE status OUTPUT_VARIABLE output
                ERROR_VARIABLE errors)
message("${output}${errors}")

if(NOT status STREQUAL STATUS)
  message(FATAL_ERROR "exit status ${status} instead of ${STATUS}")
endif()
if(NOT output MATCHES "${LAST_LINES}\n?$")
  message(FATAL_ERROR "the last lines are not ${LAST_LINES}")
endif()
if(ERROR_LINE)
  string(APPEND ERROR_LINE "\n")
endif()
if(NOT errors MATCHES "^${ERROR_LINE}$" OR errors MATCHES "\n.")
  message(FATAL_ERROR "standard error is not ${ERROR_LINE}")
endif()
foreach(file IN LISTS FILES)
  if(NOT EXISTS "${file}")
    message(FATAL_ERROR "no file ${file}")
  endif()
endforeach()
