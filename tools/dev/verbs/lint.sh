# shellcheck shell=bash
# lint                          clang-tidy, cppcheck, shellcheck: nothing may be left to say

# One file per call: with several, the analyzer takes the later ones' va_start for missing.
run_clang_tidy() {
    git ls-files 'src/*.cpp' 'platform/*.c' 'examples/*.c' |
        xargs -P "$jobs" -n 1 clang-tidy -p build/clang --quiet
}

# On a copy, because cppcheck knows neither __VA_OPT__ nor __typeof__.
run_cppcheck() {
    local copy=build/cppcheck
    rm -rf "$copy"
    mkdir -p "$copy"
    cp -r src include platform examples "$copy"
    find "$copy" -type f -exec sed -i 's/ __VA_OPT__(, )/, ##/g' {} +
    (cd "$copy" && cppcheck -j "$jobs" --quiet --error-exitcode=1 --inline-suppr \
        --enable=warning,style,performance,portability --library=posix --library=gnu \
        --suppressions-list=../../tools/lint/cppcheck.suppressions \
        -D_GNU_SOURCE -D__x86_64__ -D__LP64__ '-D__typeof__(x)=long' \
        -Iinclude -Isrc src platform examples)
}

run_shellcheck() {
    local follow=(-x -P SCRIPTDIR)
    git grep -lE '^#!(/usr/bin/env bash|/bin/(ba)?sh)$' -- ':!*.md' ':!*.cpp' ':!*.py' | xargs shellcheck "${follow[@]}"
    # What the verbs share is assigned in common.sh.
    git ls-files '*.sh' | xargs shellcheck "${follow[@]}" --exclude=SC2154
}

verb_lint() {
    need "${packages[@]}" "${clang_packages[@]}" clang-tidy cppcheck shellcheck git
    step shellcheck "mend what it names" run_shellcheck
    step cppcheck "mend it, or add it with its reason to tools/lint/cppcheck.suppressions" \
        run_cppcheck
    step configure-clang "read the log" cmake --preset clang
    step clang-tidy "mend it, or say there with NOLINT and a reason why it is right" run_clang_tidy
}
