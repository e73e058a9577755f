# shellcheck shell=bash
# fuzz [TARGET] [SECONDS]       fuzz one parser, or all for a while; fuzz list; fuzz keep [TARGET]

fuzz_corpus=fuzz/corpus
fuzz_work=build/fuzz/work         # what the runs have collected
fuzz_findings=build/fuzz/findings # what they have found
fuzz_began=build/fuzz/began       # as old as the present run

fuzz_targets() {
    local source
    for source in fuzz/*_fuzz.cpp; do
        basename "$source" _fuzz.cpp
    done
}

fuzz_check_target() {
    fuzz_targets | grep -x -- "$1" >/dev/null ||
        fail "there is no fuzz target '$1'; there are: $(fuzz_targets | xargs)"
}

fuzz_program() { printf 'build/fuzz/fuzz/%s_fuzz' "$1"; }

# fuzz_execute TARGET LOG ARGUMENTS...; a bounded quarantine keeps the memory of a run small.
fuzz_execute() {
    ASAN_OPTIONS=${ASAN_OPTIONS:-quarantine_size_mb=32} \
        UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1} \
        "$(fuzz_program "$1")" "${@:3}" >"$2" 2>&1 </dev/null
}

# The line that says what went wrong, without the process's number in it.
fuzz_reason() {
    grep -aE -m 1 -A 6 'Failure$|runtime error|ERROR: (Address|Leak)Sanitizer|timeout after|out-of-memory' \
        "$1" || tail -n 5 "$1"
}

# Runs the kept inputs of a target, one by one.
fuzz_replay() {
    local target=$1 log="build/logs/fuzz-replay-$1.log"
    fuzz_execute "$target" "$log" "$fuzz_corpus/$target"/* && return
    local input
    input=$(sed -n 's/^Running: //p' "$log" | tail -n 1)
    fuzz_reason "$log" >&2
    printf 'dev: a kept input of %s fails. The whole output is in %s\n' "$target" "$log" >&2
    printf '     Next: %s %s\n' "$(fuzz_program "$target")" "$input" >&2
    return 1
}

# Fuzzes a target for so many seconds, from its kept inputs and what earlier runs have collected.
fuzz_run() {
    local target=$1 seconds=$2 log="build/logs/fuzz-$1.log"
    local work="$fuzz_work/$target" findings="$fuzz_findings/$target"
    mkdir -p "$work" "$findings"
    fuzz_execute "$target" "$log" -max_total_time="$seconds" -timeout=20 -print_final_stats=1 \
        -artifact_prefix="$findings/" "$work" "$fuzz_corpus/$target" && return
    local finding
    finding=$(sed -n 's/.*Test unit written to //p' "$log" | tail -n 1)
    fuzz_reason "$log" >&2
    printf 'dev: fuzzing %s has found something. The whole output is in %s\n' "$target" "$log" >&2
    printf '     Next: %s %s\n' "$(fuzz_program "$target")" "$finding" >&2
    printf '     Once it is mended, keep the input as a file of %s/%s and write a test.\n' \
        "$fuzz_corpus" "$target" >&2
    return 1
}

# A figure of a run's log: the last number behind the word.
fuzz_figure() {
    grep -aoE "$2 *[0-9]+" "build/logs/fuzz-$1.log" | tail -n 1 | grep -oE '[0-9]+$' || echo 0
}

fuzz_table() {
    local target
    printf '%-20s %12s %8s %8s %10s %9s\n' target executions kept edges features findings
    for target in "$@"; do
        printf '%-20s %12s %8s %8s %10s %9s\n' "$target" \
            "$(fuzz_figure "$target" 'number_of_executed_units:')" \
            "$(find "$fuzz_corpus/$target" -type f | wc -l)" \
            "$(fuzz_figure "$target" 'cov:')" "$(fuzz_figure "$target" 'ft:')" \
            "$(find "$fuzz_findings/$target" -type f -newer "$fuzz_began" | wc -l)"
    done
}

# Does one thing to every target, two at a time: fuzz_each FUNCTION SECONDS TARGET...
fuzz_each() {
    local function=$1 seconds=$2 target status=0 running=()
    shift 2
    trap 'for target in "${running[@]}"; do end_tree "$target"; done; exit 130' INT TERM
    for target in "$@"; do
        if [ "${#running[@]}" -eq 2 ]; then
            wait "${running[0]}" || status=1
            running=("${running[1]}")
        fi
        "$function" "$target" "$seconds" &
        running+=($!)
    done
    for target in "${running[@]}"; do
        wait "$target" || status=1
    done
    trap - INT TERM
    return "$status"
}

# Replays what is kept, then fuzzes each of these for so many seconds.
fuzz_all() {
    local seconds=$1 status=0 start=$SECONDS
    shift
    build fuzz
    touch "$fuzz_began"
    say "replaying $(find "$fuzz_corpus" -type f | wc -l) kept inputs of $# targets"
    fuzz_each fuzz_replay 0 "$@" || fail 'a kept input fails'
    say "fuzzing $# targets for $seconds s each, two at a time; findings go to $fuzz_findings"
    fuzz_each fuzz_run "$seconds" "$@" || status=1
    fuzz_table "$@"
    [ "$status" -eq 0 ] || fail 'fuzzing has found something, see above'
    say "fuzzing: done in $((SECONDS - start)) s"
}

# Keeps what the runs have collected, where it reaches what no kept input does.
fuzz_keep() {
    local target=$1 before log="build/logs/fuzz-keep-$1.log"
    mkdir -p "$fuzz_work/$target"
    before=$(find "$fuzz_corpus/$target" -type f | wc -l)
    fuzz_execute "$target" "$log" -merge=1 "$fuzz_corpus/$target" "$fuzz_work/$target" ||
        fail "the merge failed, see $log"
    say "$target: $(find "$fuzz_corpus/$target" -type f | wc -l) kept inputs, $before before"
}

verb_fuzz() {
    local targets
    mapfile -t targets < <(fuzz_targets)
    case "${1:-all}" in
    list)
        printf '%s\n' "${targets[@]}"
        return
        ;;
    all) fuzz_all "${2:-20}" "${targets[@]}" ;;
    keep)
        [ -z "${2:-}" ] || fuzz_check_target "$2"
        [ -z "${2:-}" ] || targets=("$2")
        build fuzz
        fuzz_each fuzz_keep 0 "${targets[@]}"
        ;;
    *)
        fuzz_check_target "$1"
        fuzz_all "${2:-60}" "$1"
        ;;
    esac
}
