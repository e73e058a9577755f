# Counts which lines and branches a target's tests run. See runtime.c.

if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  message(FATAL_ERROR "VYT_COVERAGE needs GCC: gcov reads what its compiler wrote")
endif()
add_library(vyt_coverage SHARED tools/coverage/runtime.c)
target_link_options(vyt_coverage PRIVATE --coverage)

# The counters are atomic, for the tests with threads. GCC would replace fork and execl by calls of
# its own, which the tests' faults would not find.
function(vyt_count_coverage target)
  target_compile_options(${target} PRIVATE
    -fprofile-arcs -ftest-coverage -fprofile-update=atomic -fno-builtin-fork -fno-builtin-execl)
  target_link_options(${target} PRIVATE
    -Wl,--wrap=__gcov_init,--wrap=__gcov_exit,--wrap=__gcov_merge_add)
  target_link_libraries(${target} PRIVATE vyt_coverage)
endfunction()
