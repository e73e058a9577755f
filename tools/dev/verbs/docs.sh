# shellcheck shell=bash
# docs                          draw the pictures of docs/ anew, the watcher's from its table

verb_docs() {
    need graphviz mscgen
    build release watcher_states
    build/release/tests/watcher_states dot >docs/pictures/watcher.dot
    tools/pictures docs/pictures
}
