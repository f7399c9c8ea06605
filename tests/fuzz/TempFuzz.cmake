# Temporary stand-in until the shared fuzz build lands.
if(NOT COMMAND lum_add_fuzz_target)
  function(lum_add_fuzz_target name)
    cmake_parse_arguments(F "" "" "LIBS" ${ARGN})
    add_executable(fuzz_${name} ${CMAKE_CURRENT_SOURCE_DIR}/${name}.cpp
      ${CMAKE_SOURCE_DIR}/tests/fuzz/TempReplayMain.cpp)
    target_link_libraries(fuzz_${name} PRIVATE lum_static lum_testsupport ${F_LIBS})
    lum_target_warnings(fuzz_${name})
    add_test(NAME fuzz_${name} COMMAND fuzz_${name} ${CMAKE_CURRENT_SOURCE_DIR}/corpus
      ${CMAKE_CURRENT_SOURCE_DIR}/crashes)
    set_tests_properties(fuzz_${name} PROPERTIES LABELS fuzz TIMEOUT 300)
  endfunction()
endif()
