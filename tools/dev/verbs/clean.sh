# shellcheck shell=bash
# clean                         remove everything that was built

verb_clean() { rm -rf build compile_commands.json; }
