# Builds and runs a consumer project: cmake -DMODE=installed|subdirectory
# -DQUARIL_BUILD=<build tree> -DQUARIL_SOURCE=<source tree> -DWORK=<folder>
# -DCXX=<compiler> -P RunConsumer.cmake

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE failed OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(failed)
    message(FATAL_ERROR "${ARGN}\n${out}")
  endif()
endfunction()

file(REMOVE_RECURSE ${WORK})
set(here ${CMAKE_CURRENT_LIST_DIR})
if(MODE STREQUAL "installed")
  run(${CMAKE_COMMAND} --install ${QUARIL_BUILD} --prefix ${WORK}/prefix)
  run(${CMAKE_COMMAND} -S ${here}/consumer -B ${WORK}/build -DCMAKE_CXX_COMPILER=${CXX}
      -DCMAKE_PREFIX_PATH=${WORK}/prefix)
  # The installed program finds its libraries by itself.
  run(${WORK}/prefix/bin/bundle-tool --version)
else()
  run(${CMAKE_COMMAND} -S ${here}/subdirectory -B ${WORK}/build -DCMAKE_CXX_COMPILER=${CXX}
      -DQUARIL_SOURCE_DIR=${QUARIL_SOURCE} -DQUARIL_TOOLS=OFF -DCMAKE_BUILD_TYPE=Release)
endif()
run(${CMAKE_COMMAND} --build ${WORK}/build -j2 --target consumer)
run(${WORK}/build/consumer ${WORK}/consumer.h5)
