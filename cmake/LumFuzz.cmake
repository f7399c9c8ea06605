# Fuzz targets: tests/fuzz/<name>/CMakeLists.txt calls
#   lum_add_fuzz_target(<name> [LIBS ...])
# In every ordinary build the target is a replayer (tests/fuzz/ReplayMain.cpp)
# and a CTest test, label "fuzz", that runs the checked-in corpus/ and crashes/
# of the target once each, so every finding stays fixed. With -DLUM_FUZZ=ON
# (clang only) the library and the targets are instrumented and fuzz_<name> is
# a libFuzzer binary; scripts/fuzz.sh drives those.
include_guard(GLOBAL)

option(LUM_FUZZ "Build the fuzz targets as libFuzzer binaries (clang)" OFF)

if(LUM_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "LUM_FUZZ needs clang (CMAKE_CXX_COMPILER=clang++-14)")
  endif()
  if(NOT LUM_SANITIZE STREQUAL "")
    message(FATAL_ERROR "LUM_FUZZ brings its own sanitizers: leave LUM_SANITIZE empty")
  endif()
  # Everything compiled from here on (library, tools, targets) gets coverage
  # feedback; only the targets link the fuzzer's own main.
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined
                      -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
endif()

function(lum_add_fuzz_target name)
  cmake_parse_arguments(F "" "" "LIBS" ${ARGN})
  set(dir ${CMAKE_CURRENT_SOURCE_DIR})
  if(LUM_FUZZ)
    add_executable(fuzz_${name} ${dir}/${name}.cpp ${CMAKE_SOURCE_DIR}/tests/fuzz/FuzzSupport.cpp)
    target_link_options(fuzz_${name} PRIVATE -fsanitize=fuzzer)
  else()
    add_executable(fuzz_${name} ${dir}/${name}.cpp ${CMAKE_SOURCE_DIR}/tests/fuzz/FuzzSupport.cpp
      ${CMAKE_SOURCE_DIR}/tests/fuzz/ReplayMain.cpp)
    add_test(NAME fuzz_${name} COMMAND fuzz_${name} ${dir}/corpus ${dir}/crashes)
    set_tests_properties(fuzz_${name} PROPERTIES TIMEOUT 300 LABELS fuzz
      ENVIRONMENT "LUM_TEST_TMP=${CMAKE_BINARY_DIR}/testtmp")
  endif()
  target_link_libraries(fuzz_${name} PRIVATE lum_static lum_testsupport ${F_LIBS})
  lum_target_warnings(fuzz_${name})
endfunction()
