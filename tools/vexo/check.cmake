# One smoke test of the vexo tool: runs PROGRAM with ARGS ('|'-separated),
# checks that it exits with EXPECT (zero or nonzero, a crash is neither),
# that its output matches REGEX and, given SCRATCH, that it left nothing in
# the TMPDIR it was given.
string(REPLACE "|" ";" args "${ARGS}")
string(REPLACE "|" " " shown "${ARGS}")
if(DEFINED SCRATCH)
  file(REMOVE_RECURSE "${SCRATCH}")
  file(MAKE_DIRECTORY "${SCRATCH}")
  set(ENV{TMPDIR} "${SCRATCH}")
endif()

execute_process(COMMAND "${PROGRAM}" ${args} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
message("${out}${err}")

if(NOT rc MATCHES "^[0-9]+$")
  message(FATAL_ERROR "vexo ${shown} did not exit normally: ${rc}")
endif()
if(EXPECT STREQUAL "zero" AND NOT rc EQUAL 0)
  message(FATAL_ERROR "vexo ${shown} exited with ${rc}, expected 0")
endif()
if(EXPECT STREQUAL "nonzero" AND rc EQUAL 0)
  message(FATAL_ERROR "vexo ${shown} exited with 0, expected a failure")
endif()
# A sanitizer report also ends in a non-zero exit; it must not pass for the expected failure.
if("${out}${err}" MATCHES "Sanitizer")
  message(FATAL_ERROR "vexo ${shown}: sanitizer report")
endif()
if(DEFINED REGEX AND NOT "${out}${err}" MATCHES "${REGEX}")
  message(FATAL_ERROR "vexo ${shown}: output does not match '${REGEX}'")
endif()
if(DEFINED SCRATCH)
  file(GLOB left "${SCRATCH}/*")
  file(REMOVE_RECURSE "${SCRATCH}")
  if(left)
    message(FATAL_ERROR "vexo ${shown} left behind: ${left}")
  endif()
endif()
