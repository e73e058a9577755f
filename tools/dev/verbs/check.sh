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

verb_check() {
    build release VYThelpers
    step board-build "cmake --build build/board" board_build
    step faults "./dev faults shows the table, build/logs/faults_*.log each fault" verb_faults
    tail -n 1 build/logs/faults.log
    ./dev soak 1
    ./dev coverage
    ./dev abi
    ./dev test --arm64
    verb_fuzz all 3
    ./dev package --test
    step reference "./dev reference" ./dev reference
    run_tests tsan
    run_tests asan
}
