# Runs PROGRAM: it passes when it exits with 0 and its output matches EXPECT (a regular
# expression); otherwise it fails showing its status and what it printed.
execute_process(COMMAND ${PROGRAM} RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(NOT status STREQUAL "0")
  message(FATAL_ERROR "${PROGRAM} exited with ${status}\n${out}${err}")
endif()
if(NOT out MATCHES "${EXPECT}")
  message(FATAL_ERROR "${PROGRAM} did not print what matches \"${EXPECT}\":\n${out}${err}")
endif()
