# shellcheck shell=bash
# format [--check]              write C and C++ as .clang-format says, or only look whether it is so

verb_format() {
    local list files
    need clang-format git
    list=$(git ls-files '*.c' '*.h' '*.cpp' '*.hpp')
    mapfile -t files <<<"$list"
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
