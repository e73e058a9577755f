# shellcheck shell=bash
# coverage                      the lines and branches that the tests reach; fails for any that they do not

coverage_dir=build/coverage

# What gcov counts beside the source's own decisions is left out by kind, never by hand. The library
# is built without exceptions, so only the tests that expand its headers have the edges that an
# exception would take: --exclude-throw-branches. Without optimisation no other code is invented.
# An instance of a template or inline function counts for all of them.
coverage_report() {
    mkdir -p "$coverage_dir/report"
    gcovr --root . --filter src/ --filter include/ --exclude-throw-branches \
        --json "$coverage_dir/coverage.json" \
        --html-details "$coverage_dir/report/index.html" --html-title 'What the tests reach' \
        "$coverage_dir"
}

verb_coverage() {
    need "${packages[@]}" "${test_packages[@]}" gcovr python3
    build coverage
    # What earlier runs counted, and the build, which asks the tests for their names.
    find "$coverage_dir" -name '*.gcda' -delete
    step coverage-tests "ctest --test-dir $coverage_dir --rerun-failed --output-on-failure" \
        ctest --test-dir "$coverage_dir" --parallel "$test_jobs" --output-on-failure
    step coverage-report "rm -r $coverage_dir, then ./dev coverage" coverage_report
    say "the report is $coverage_dir/report/index.html"
    python3 tools/coverage/check.py "$coverage_dir/coverage.json" tests/coverage_unreachable.txt ||
        fail "the tests do not reach what they should.
     Next: add a test, or remove what cannot be reached, or list it with its reason in
     tests/coverage_unreachable.txt"
}
