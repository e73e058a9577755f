# shellcheck shell=bash
# valgrind [PRESET]             run the tests under memcheck (preset hardened unless another is named)

# An exclusion that fits no test any more would fit another one some day.
check_excluded_exist() {
    local executables pattern program fits
    while read -r executables pattern _; do
        fits=''
        # shellcheck disable=SC2231 # it is a pattern
        for program in build/"$1"/tests/$executables; do
            [[ -f $program && -x $program ]] || continue
            "$program" --gtest_list_tests --gtest_filter="$pattern" | grep '^  ' >/dev/null && fits=yes
        done
        [ -n "$fits" ] || fail "tools/valgrind/excluded names tests that there are none of: $executables $pattern"
    done < <(grep -v '^#' tools/valgrind/excluded)
}

run_memcheck() {
    check_excluded_exist "$1"
    find "build/$1/tests" -maxdepth 1 -name '*_test' -print0 | sort -z |
        xargs -0 -P "$jobs" -I{} tools/valgrind/memcheck {} "$2"
}

# The sum of what the logs' leak summaries say; a process without a block left has none.
definitely_lost() {
    cat "$1"/*.log | sed -n 's/.*definitely lost: \([0-9,]*\) bytes.*/\1/p' | tr -d , |
        awk '{ bytes += $1 } END { printf "%d bytes in %d leak summaries", bytes, NR }'
}

verb_valgrind() {
    local preset=${1:-hardened} logs
    logs=$PWD/build/$preset/valgrind
    need valgrind "${test_packages[@]}"
    build "$preset"
    rm -rf "$logs"
    mkdir -p "$logs"
    step "valgrind-$preset" "read the failing executable's logs in build/$preset/valgrind" \
        run_memcheck "$preset" "$logs"
    say "definitely lost: $(definitely_lost "$logs")"
}
