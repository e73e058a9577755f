# shellcheck shell=bash
# check                         what guards main beside the tests; its last lines are a test run's

# The library as a board builds it, with libraries that provide the board's functions.
board_build() {
    cmake -S . -B build/board -G Ninja -DCMAKE_BUILD_TYPE=Release -DVYT_PLATFORM=board \
        -DVYT_BOARD_LIBRARIES="$PWD/build/release/libVYTplatform.so" -DVYT_BUILD_TESTS=OFF
    cmake --build build/board --parallel "$jobs"
}

# shellcheck source=tools/dev/verbs/faults.sh
source tools/dev/verbs/faults.sh
# shellcheck source=tools/dev/verbs/fuzz.sh
source tools/dev/verbs/fuzz.sh

# One line for each guard: the quick ones first, so that a mistake is told early. The test runs take
# every property of the presets' table at least once, together with ./dev test.
verb_check() {
    ./dev format --check
    ./dev lint
    build release VYThelpers
    step board-build "cmake --build build/board" board_build
    step reference "./dev reference" ./dev reference
    ./dev abi
    step faults "./dev faults shows the table, build/logs/faults_*.log each fault" verb_faults
    tail -n 1 build/logs/faults.log
    verb_fuzz all 3
    ./dev soak 1
    ./dev coverage
    ./dev package --test
    ./dev test --arm64
    ./dev valgrind
    run_tests clang-asan
    run_tests tsan
    run_tests asan
}
