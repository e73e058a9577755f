# shellcheck shell=bash
# reference                     the manual pages and the HTML reference, held against the exports

verb_reference() {
    local pages=build/release/reference
    need doxygen python3 mandoc man-db groff-base
    build release reference
    step reference-check "mend what the log's first failure names, then ./dev reference" \
        env PYTHONDONTWRITEBYTECODE=1 VYT_REFERENCE_DIR="$PWD/$pages" \
        python3 tests/reference/reference_test.py
    say "manual pages: man -M $pages/man lh_poll_ctx_main_loop"
    say "HTML: $pages/html/index.html"
}
