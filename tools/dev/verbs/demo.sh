# shellcheck shell=bash
# demo                          show a daemon following VRRP states, in a private world

verb_demo() {
    build release VYThelpers examples
    build/release/examples/demo/run "$@"
}
