execute_process(COMMAND objdump -p ${LIBRARY} OUTPUT_VARIABLE out RESULT_VARIABLE rc)
if(NOT rc EQUAL 0 OR NOT out MATCHES "SONAME +liblum\\.so\\.0\n")
  message(FATAL_ERROR "SONAME of ${LIBRARY} is not liblum.so.0")
endif()
