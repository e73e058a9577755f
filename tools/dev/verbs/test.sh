# shellcheck shell=bash
# test [PRESET] [CTEST OPTIONS] build, then run every test (release; --arm64: ARM in an emulator)

# The tests that the emulator cannot run; the file says why.
skipped_on_arm64() { sed -n 's/^    //p' tests/arm64_skipped.txt; }

check_skipped_exist() {
    local all gone
    all=$(ctest --test-dir build/arm64 --show-only | sed -n 's/^ *Test *#[0-9]*: //p')
    gone=$(skipped_on_arm64 | grep -vxFf <(printf '%s\n' "$all")) || return 0
    fail "tests/arm64_skipped.txt names tests that there are none of: ${gone//$'\n'/, }
     Next: take them out of the file, or name them as ctest does."
}

test_arm64() {
    local skipped
    if [ "$(uname -m)" = aarch64 ]; then
        run_tests arm64 "$@"
        return
    fi
    skipped=$(skipped_on_arm64 | sed 's/[.()]/\\&/g' | paste -sd '|')
    run_tests arm64 --exclude-regex "^($skipped)\$" "$@"
    check_skipped_exist
    say "not run in the emulator, for the reasons in tests/arm64_skipped.txt:"
    skipped_on_arm64
}

verb_test() {
    case "${1:-}" in
    --arm64 | arm64) test_arm64 "${@:2}" ;;
    *) run_tests "$@" ;;
    esac
}
