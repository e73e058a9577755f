# shellcheck shell=bash
# format [--check]              write C and C++ as .clang-format says, or only look whether it is so

verb_format() {
    local files
    need clang-format
    mapfile -t files < <(git ls-files '*.c' '*.h' '*.cpp' '*.hpp')
    case ${1:-} in
    '') clang-format -i "${files[@]}" ;;
    --check)
        clang-format --dry-run --Werror --ferror-limit=5 "${files[@]}" ||
            fail "these places are not as .clang-format says. Next: ./dev format"
        say "format: ${#files[@]} files are as .clang-format says"
        ;;
    *) fail "usage: ./dev format [--check]" ;;
    esac
}
