# shellcheck shell=bash
# abi [--accept]                compare the binary interface with the accepted one in abi/

# Writes what daemons see of the library that was built for a processor.
dump_abi() {
    local processor=$1 dump=$2
    abidw --headers-dir include --drop-private-types --exported-interfaces-only \
        --drop-undefined-syms --type-id-style hash --no-corpus-path --no-comp-dir-path \
        --no-elf-needed --no-show-locs --out-file "$dump.raw" \
        "build/abi-$processor/libVYThelpers.so"
    tools/abi_slim.py "$dump.raw" >"$dump"
}

compare_abi() {
    local processor=$1 dump=$2
    if ! abidiff --harmless "abi/$processor.abi" "$dump"; then
        fail "the binary interface on $processor is not the one in abi/$processor.abi.
     Next: undo what changed it. Where the change is meant, and every daemon is built anew with
     it: ./dev abi --accept, and commit abi/ with the reason."
    fi
}

verb_abi() {
    local processor dump
    case "${1:-}" in
    '' | --accept) ;;
    *) fail "usage: ./dev abi [--accept]" ;;
    esac
    need abigail-tools python3
    for processor in x86_64 aarch64; do
        need_processor "$processor"
        build "abi-$processor" VYThelpers
        dump=build/abi-$processor/$processor.abi
        dump_abi "$processor" "$dump"
        if [ "${1:-}" = --accept ]; then
            cp "$dump" "abi/$processor.abi"
            say "abi/$processor.abi is now the accepted binary interface"
        else
            compare_abi "$processor" "$dump"
            say "the binary interface on $processor is the accepted one"
        fi
    done
}
