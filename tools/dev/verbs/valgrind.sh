# shellcheck shell=bash
# valgrind [PRESET]             run the tests under memcheck (preset hardened unless another is named)

run_memcheck() {
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
