# shellcheck shell=bash
# test [PRESET] [CTEST OPTIONS] build, then run every test (preset release unless another is named)

verb_test() { run_tests "$@"; }
