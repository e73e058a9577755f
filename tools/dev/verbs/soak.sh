# shellcheck shell=bash
# soak [MINUTES] [SEED]         storms at full speed on watcher, tracker, loop and shell runner

verb_soak() {
    local minutes=${1:-1}
    build release soak
    say "soaking for $minutes min (a line every 10 s)"
    build/release/tests/soak $((minutes * 60)) "${@:2}" ||
        fail "the soak failed: the scenario's last word stands at the end of its line above"
}
