# shellcheck shell=bash
# package [--test]              Debian packages in build/package; --test tries them in a clean root

package_architectures=(amd64 arm64)

# What building for another architecture than this machine's takes.
need_cross_build() {
    local architecture=$1
    [ "$architecture" = "$(dpkg --print-architecture)" ] && return
    need_architecture "$architecture"
    need "crossbuild-essential-$architecture" "libyaml-dev:$architecture"
}

build_packages() {
    local architecture
    need git build-essential debhelper cmake libyaml-dev doxygen python3 lintian
    for architecture in "${package_architectures[@]}"; do
        need_cross_build "$architecture"
        step "package-$architecture" "mend the first error above, then ./dev package" \
            tools/package/build "$architecture" "build/package/$architecture"
    done
    step package-lint "mend it, or explain it in packaging/debian (*.lintian-overrides)" \
        lintian --profile debian --fail-on error,warning build/package/*/*.changes
}

# Elsewhere and at another hour of the day the packages are the same, byte by byte.
build_again() {
    local architecture=$1 again=build/package/again/elsewhere package
    TZ=Pacific/Kiritimati tools/package/build "$architecture" "$again"
    for package in "$again"/*.deb; do
        cmp "$package" "build/package/$architecture/$(basename "$package")"
    done
    rm -rf build/package/again
}

# Whether this user may make the private root that the packages are tried in.
may_chroot() { [ "$(id -u)" -eq 0 ] || command -v sudo >/dev/null; }

try_packages() {
    local architecture root
    architecture=$(dpkg --print-architecture)
    step package-again "compare the two with diffoscope: build/package/again" \
        build_again "$architecture"
    if ! may_chroot; then
        say "SKIPPED: trying the packages in a clean root needs root or sudo"
        return
    fi
    need mmdebstrap dpkg-dev util-linux
    # Another recipe makes another root.
    root=build/package/root-$(cksum <tools/package/make_root | cut -d ' ' -f 1).tar
    if [ ! -f "$root" ]; then
        rm -f build/package/root-*
        step package-root "see whether apt-get update works, then ./dev package --test" \
            as_root tools/package/make_root "$root"
    fi
    step package-test "mend the packages, then ./dev package --test" \
        as_root tools/package/try_in_root "$root" "build/package/$architecture/"*.deb
}

verb_package() {
    case "${1:-}" in
    "" | --test) ;;
    *) fail "package takes --test or nothing, not '$1'" ;;
    esac
    build_packages
    if [ "${1:-}" = --test ]; then
        try_packages
    fi
    say "the packages:"
    ls build/package/*/*.deb
}
