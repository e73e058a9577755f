# What the verbs of ./dev share; sourced in the root of the tree.
# shellcheck shell=bash

packages=(g++ gcc cmake ninja-build pkg-config libc6-dev libyaml-dev libgtest-dev libgmock-dev)
clang_packages=(clang libclang-rt-14-dev)
test_packages=(binutils python3 python3-yaml sudo dos2unix sysvinit-utils keepalived iproute2 tmux)
jobs=$(nproc)
test_jobs=$((2 * jobs)) # many tests wait more than they work

say() { printf '== %s\n' "$*"; }
fail() {
    printf 'dev: %s\n' "$*" >&2
    exit 1
}

as_root() {
    if [ "$(id -u)" -eq 0 ]; then
        "$@"
    elif command -v sudo >/dev/null; then
        sudo "$@"
    else
        fail "installing packages needs root: run this as root, or install: $*"
    fi
}

missing_packages() {
    local package
    for package in "$@"; do
        dpkg-query -W -f='${db:Status-Status}\n' "$package" 2>/dev/null | grep -x installed >/dev/null ||
            printf '%s\n' "$package"
    done
}

# apt-get install, but nothing that is installed is started, whatever its package would start: a
# policy that says so stands while it runs, unless the machine has one of its own.
install_quietly() {
    # shellcheck disable=SC2016
    as_root env DEBIAN_FRONTEND=noninteractive sh -c '
        policy=/usr/sbin/policy-rc.d
        if ! [ -e "$policy" ]; then
            trap "rm -f $policy" EXIT
            trap "exit 130" INT TERM
            printf "#!/bin/sh\nexit 101\n" >"$policy"
            chmod 755 "$policy"
        fi
        apt-get install -y -qq --no-install-recommends "$@" >/dev/null' sh "$@"
}

# Installs what is missing, by package name; says nothing where nothing is.
need() {
    local missing
    mapfile -t missing < <(missing_packages "$@")
    [ "${#missing[@]}" -eq 0 ] && return
    say "installing with apt-get: ${missing[*]}"
    as_root env DEBIAN_FRONTEND=noninteractive apt-get update -qq
    install_quietly "${missing[@]}"
}

# Lets dpkg install packages of another architecture, as Debian names it.
need_architecture() {
    if ! dpkg --print-foreign-architectures | grep -x "$1" >/dev/null; then
        say "adding the architecture $1 to dpkg"
        as_root dpkg --add-architecture "$1"
    fi
}

# need_processor PROCESSOR: installs what builds for a processor, as uname -m names it, and what runs
# that. This machine's own needs no more than any build.
need_processor() {
    local processor=$1 architecture
    [ "$processor" != "$(uname -m)" ] || return 0
    case "$processor" in
    aarch64) architecture=arm64 ;;
    x86_64) architecture=amd64 ;;
    *) fail "there is no cross compiler for $processor" ;;
    esac
    need_architecture "$architecture"
    need "g++-${processor//_/-}-linux-gnu" qemu-user \
        {libyaml-dev,libgtest-dev,libgmock-dev,libstdc++6}":$architecture"
}

# Shows on a terminal, until the process ends, the time and the log's last line.
watch_log() {
    local pid=$1 log=$2 start=$SECONDS
    [ -t 1 ] || return 0
    while kill -0 "$pid" 2>/dev/null; do
        printf '\r\033[K   %d s  %.60s' $((SECONDS - start)) "$(tail -n 1 "$log" | tr -d '\r')"
        sleep 0.5
    done
    printf '\r\033[K'
}

# Ends a process and all that it has started, from the top: nothing is started anew meanwhile.
end_tree() {
    local children child
    children=$(cat "/proc/$1/task/$1/children" 2>/dev/null || true)
    kill "$1" 2>/dev/null || true
    for child in $children; do
        end_tree "$child"
    done
}

# step NAME NEXT COMMAND...: runs the command with its output in build/logs/NAME.log and says how
# long it took. Where it fails, shows the log's end and what to do NEXT.
step() {
    local name=$1 next=$2 log="build/logs/$1.log" start=$SECONDS pid status=0
    shift 2
    mkdir -p build/logs
    say "$name ..."
    "$@" >"$log" 2>&1 </dev/null &
    pid=$!
    trap 'end_tree "$pid"; exit 130' INT TERM
    watch_log "$pid" "$log"
    wait "$pid" || status=$?
    trap - INT TERM
    if [ "$status" -ne 0 ]; then
        grep -m 3 -nE '(error|ERROR)[: ]|FAILED' "$log" | cut -c 1-300 >&2 || true
        printf -- '---- the end of %s\n' "$log" >&2
        tail -n 25 "$log" >&2
        fail "$name failed after $((SECONDS - start)) s. The whole output is in $log.
     Next: $next"
    fi
    say "$name: done in $((SECONDS - start)) s"
}

# The presets of CMakePresets.json that can be built.
presets() {
    sed -n 's/.*"configurePreset": "\([^"]*\)".*/\1/p' CMakePresets.json
}

check_preset() {
    presets | grep -x -- "$1" >/dev/null || fail "there is no preset '$1'; there are: $(presets | xargs)"
}

# A preset's compiler, where that is not GCC.
need_compiler() {
    case "$1" in
    clang* | fuzz*) need "${clang_packages[@]}" ;;
    esac
}

# build [PRESET] [TARGET...]
build() {
    local preset=${1:-release} log="build-${1:-release}"
    local targets=("${@:2}")
    check_preset "$preset"
    need "${packages[@]}"
    need_compiler "$preset"
    case "$preset" in
    arm64 | *-aarch64) need_processor aarch64 ;;
    *-x86_64) need_processor x86_64 ;;
    esac
    step "configure-$preset" "read the log, then ./dev build $preset" cmake --preset "$preset"
    step "$log" "mend the first error above, then ./dev build $preset" \
        cmake --build --preset "$preset" --parallel "$jobs" ${targets[0]:+--target "${targets[@]}"}
    ln -sf "build/$preset/compile_commands.json" compile_commands.json
}

# The thread sanitizer needs an address space without randomised holes on some kernels.
runner_of() {
    case "$1" in
    *tsan*) if setarch -R true 2>/dev/null; then echo setarch -R; fi ;;
    esac
}

# run_tests [PRESET] [CTEST OPTIONS]
run_tests() {
    local preset=${1:-release}
    [ $# -gt 0 ] && shift
    check_preset "$preset"
    need "${packages[@]}" "${test_packages[@]}"
    build "$preset"
    say "running the tests of the preset $preset"
    # shellcheck disable=SC2046
    $(runner_of "$preset") ctest --test-dir "build/$preset" --parallel "$test_jobs" \
        --output-on-failure "$@" ||
        fail "tests failed. The whole output is in build/$preset/Testing/Temporary/LastTest.log.
     Next: ctest --test-dir build/$preset --rerun-failed --output-on-failure"
}
