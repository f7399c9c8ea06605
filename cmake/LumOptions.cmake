# Warnings and sanitizer flags shared by every target of the project.

function(lum_target_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Werror)
endfunction()

# The thread-safety build: clang checks every GUARDED_BY / REQUIRES
# annotation (Platform/ThreadSafety.h) in the library, the tools and the
# tests, and any finding fails the build.
option(LUM_THREAD_SAFETY "Compile with clang's -Wthread-safety as errors" OFF)
if(LUM_THREAD_SAFETY)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "LUM_THREAD_SAFETY needs clang")
  endif()
  add_compile_options(-Wthread-safety -Werror -ferror-limit=0)
endif()

if(LUM_SANITIZE STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=undefined
                      -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
elseif(LUM_SANITIZE STREQUAL "thread")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
elseif(NOT LUM_SANITIZE STREQUAL "")
  message(FATAL_ERROR "LUM_SANITIZE must be '', 'address' or 'thread'")
endif()

# Coverage instrumentation (clang only) for scripts/coverage.sh.
option(LUM_COVERAGE "Instrument for clang source-based coverage" OFF)
if(LUM_COVERAGE)
  if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    message(FATAL_ERROR "LUM_COVERAGE needs clang")
  endif()
  add_compile_options(-fprofile-instr-generate -fcoverage-mapping)
  add_link_options(-fprofile-instr-generate)
endif()

# The fuzzing option instruments the whole build, so it is read before any
# target exists.
include(${CMAKE_CURRENT_LIST_DIR}/LumFuzz.cmake)
