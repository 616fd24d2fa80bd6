# Installs the build into a fresh prefix, builds the consumer project against the installed
# package, and runs both of its programs.
file(REMOVE_RECURSE ${WORK})
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD} --prefix ${WORK}/prefix
  RESULT_VARIABLE rc OUTPUT_QUIET)
if(rc)
  message(FATAL_ERROR "install failed")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} -S ${SOURCE} -B ${WORK}/build -G Ninja
  -DCMAKE_PREFIX_PATH=${WORK}/prefix -DCMAKE_CXX_COMPILER=${CXX} -DCMAKE_CXX_FLAGS=${CXXFLAGS}
  -DCMAKE_EXE_LINKER_FLAGS=${LDFLAGS} RESULT_VARIABLE rc)
if(rc)
  message(FATAL_ERROR "configuring the consumer failed")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} --build ${WORK}/build RESULT_VARIABLE rc)
if(rc)
  message(FATAL_ERROR "building the consumer failed")
endif()
foreach(program embed load)
  execute_process(COMMAND ${WORK}/build/${program} RESULT_VARIABLE rc OUTPUT_VARIABLE out)
  if(rc OR NOT out MATCHES "Object ID : 00000000-0000-0000-0000-000000000000\nObject Name : \n")
    message(FATAL_ERROR "${program} failed (${rc}): ${out}")
  endif()
endforeach()
