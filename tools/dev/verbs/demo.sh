# shellcheck shell=bash
# demo [--vrrpd] [OPTIONS]      show a daemon following VRRP states; --vrrpd: those of a real VRRP daemon

verb_demo() {
    local demo=run
    if [ "${1:-}" = --vrrpd ]; then
        demo=vrrpd
        shift
        need keepalived iproute2
    fi
    build release VYThelpers examples
    "build/release/examples/demo/$demo" "$@"
}
