# Fails unless README contains PROGRAM's text verbatim inside a ```FENCE block (cpp unless
# told otherwise).
if(NOT FENCE)
  set(FENCE cpp)
endif()
file(READ ${README} readme)
file(READ ${PROGRAM} program)
string(FIND "${readme}" "```${FENCE}\n${program}```" at)
if(at EQUAL -1)
  message(FATAL_ERROR "${README} does not show ${PROGRAM} as it is")
endif()
