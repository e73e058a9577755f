# shellcheck shell=bash
# faults [PRESET]               let each call of each function fail, one by one; shows it as one table

# The programs that sweep the faults of one room each.
fault_sweeps() {
    local source
    for source in tests/faults/*_faults_test.cpp; do
        printf 'faults_%s\n' "$(basename "$source" .cpp)"
    done
}

# Runs the sweeps side by side; each one's whole output goes to build/logs/NAME.log.
run_fault_sweeps() {
    # shellcheck disable=SC2046,SC2016
    $(runner_of "$1") xargs -P "$jobs" -I{} sh -c \
        '"build/$0/tests/{}" >"build/logs/{}.log" 2>&1 || { echo "{} failed" >&2; exit 1; }' "$1"
}

# Their lines as one table with its total: functions, call sites and faults.
fault_table() {
    printf '%-42s %5s %6s\n' function sites faults
    sed -n 's/^\[  FAULTS  \] //p' "$@"
    awk '
        sub(/^\[  FAULTS  \] /, "") { functions++; sites += $2; faults += $3; failed += /FAILED/ }
        END {
            printf "%d functions, %d call sites, %d faults: %s\n", functions, sites, faults,
                failed ? failed " functions FAILED" : "all passed"
        }' "$@"
}

verb_faults() {
    local preset=${1:-release} sweeps status=0
    mapfile -t sweeps < <(fault_sweeps)
    need "${packages[@]}" "${test_packages[@]}"
    build "$preset" "${sweeps[@]}" faults_completeness_test
    printf '%s\n' faults_completeness_test "${sweeps[@]}" | run_fault_sweeps "$preset" || status=1
    sweeps=("${sweeps[@]/#/build/logs/}")
    fault_table "${sweeps[@]/%/.log}"
    [ "$status" -eq 0 ] || fail "a sweep failed. What each fault did is in build/logs/faults_*.log.
     Next: build/$preset/tests/NAME --gtest_filter='*.FUNCTION'"
}
