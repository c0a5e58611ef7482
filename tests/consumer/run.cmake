# Installs the built SDK into a scratch prefix, then configures, builds and runs the
# consumer against it. Variables: BUILD_DIR, SOURCE_DIR, WORK_DIR, FLAGS.
file(REMOVE_RECURSE ${WORK_DIR})
function(step)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "${ARGN}\n${out}")
  endif()
  set(output "${out}" PARENT_SCOPE)
endfunction()
step(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${WORK_DIR}/prefix)
step(${CMAKE_COMMAND} -S ${SOURCE_DIR} -B ${WORK_DIR}/build -DCMAKE_PREFIX_PATH=${WORK_DIR}/prefix
     "-DCMAKE_CXX_FLAGS=${FLAGS}" "-DCMAKE_EXE_LINKER_FLAGS=${FLAGS}")
step(${CMAKE_COMMAND} --build ${WORK_DIR}/build)
step(${WORK_DIR}/build/consumer)
if(NOT output STREQUAL "68b50000010000dc00\n")
  message(FATAL_ERROR "unexpected frame: ${output}")
endif()
