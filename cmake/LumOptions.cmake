# Warnings and sanitizer flags shared by every target of the project.

function(lum_target_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Werror)
endfunction()

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

# The fuzzing option instruments the whole build, so it is read before any
# target exists.
include(${CMAKE_CURRENT_LIST_DIR}/LumFuzz.cmake)
