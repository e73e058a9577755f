# shellcheck shell=bash
# build [PRESET] [TARGET...]    build into build/PRESET (release unless another is named)

verb_build() { build "$@"; }
