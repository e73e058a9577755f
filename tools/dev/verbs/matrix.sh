# shellcheck shell=bash
# matrix [PRESET...]            run the tests under every preset, or the named ones; --list shows them

# The presets of the table: a row starts with the compiler.
matrix_presets() {
    local preset
    for preset in $(presets); do
        case "$(preset_row "$preset")" in
        'gcc '* | 'clang '*) printf '%s\n' "$preset" ;;
        esac
    done
}

list_matrix() {
    local preset
    printf '%-12s%-7s%-5s%-19s%-20s%s\n' preset cc opt sanitizer char checks
    for preset in $(matrix_presets); do
        printf '%-12s%s\n' "$preset" "$(preset_row "$preset")"
    done
}

preset_row() {
    sed -n "/\"name\": \"$1\"/,/displayName/s/.*\"displayName\": \"\(.*[^ ]\) *\".*/\1/p" \
        CMakePresets.json
}

verb_matrix() {
    local preset wanted=("$@")
    if [ "${1:-}" = --list ]; then
        list_matrix
        return
    fi
    [ $# -gt 0 ] || mapfile -t wanted < <(matrix_presets)
    for preset in "${wanted[@]}"; do
        check_preset "$preset"
    done
    for preset in "${wanted[@]}"; do
        say "$preset: $(preset_row "$preset" | tr -s ' ')"
        run_tests "$preset" --quiet
    done
    say "passed under ${#wanted[@]} presets: ${wanted[*]}"
}
