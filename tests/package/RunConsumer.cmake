# Builds and runs a consumer project: cmake -DMODE=installed|subdirectory
# -DQUARIL_BUILD=<build tree> -DQUARIL_SOURCE=<source tree> -DWORK=<folder>
# -DCXX=<compiler> -DBUILD_TYPE=<configuration> -P RunConsumer.cmake

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE failed OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(failed)
    message(FATAL_ERROR "${ARGN}\n${out}")
  endif()
endfunction()

file(REMOVE_RECURSE ${WORK})
set(here ${CMAKE_CURRENT_LIST_DIR})
set(common -DCMAKE_CXX_COMPILER=${CXX} -DCMAKE_BUILD_TYPE=${BUILD_TYPE})
set(config)
if(BUILD_TYPE)
  set(config --config ${BUILD_TYPE})
endif()
if(MODE STREQUAL "installed")
  run(${CMAKE_COMMAND} --install ${QUARIL_BUILD} --prefix ${WORK}/prefix ${config})
  run(${CMAKE_COMMAND} -S ${here}/consumer -B ${WORK}/build ${common}
      -DCMAKE_PREFIX_PATH=${WORK}/prefix)
  # The installed program finds its libraries by itself.
  if(EXISTS ${WORK}/prefix/bin/bundle-tool)
    run(${WORK}/prefix/bin/bundle-tool --version)
  endif()
else()
  # Only the libraries: the consumer needs nothing else, and the build stays short.
  run(${CMAKE_COMMAND} -S ${here}/subdirectory -B ${WORK}/build ${common}
      -DQUARIL_SOURCE_DIR=${QUARIL_SOURCE} -DQUARIL_TOOLS=OFF -DQUARIL_BUILD_TESTS=OFF
      -DQUARIL_BUILD_BENCHMARKS=OFF -DQUARIL_BUILD_EXAMPLES=OFF)
endif()
run(${CMAKE_COMMAND} --build ${WORK}/build -j2 --target consumer ${config})
run(${WORK}/build/consumer ${WORK}/consumer.h5)
