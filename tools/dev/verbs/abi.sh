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

# Compares a dump with the accepted one of its processor, or accepts it.
compare_abi() {
    abidiff --harmless "abi/$1.abi" "$2" || return
    say "the binary interface on $1 is the accepted one"
}
accept_abi() {
    cp "$2" "abi/$1.abi" || return
    say "abi/$1.abi is now the accepted binary interface"
}

verb_abi() {
    local processor dump changed='' each=compare_abi
    case "${1:-}" in
    '') ;;
    --accept) each=accept_abi ;;
    *) fail "usage: ./dev abi [--accept]" ;;
    esac
    need abigail-tools python3
    for processor in x86_64 aarch64; do
        build "abi-$processor" VYThelpers
        dump=build/abi-$processor/$processor.abi
        dump_abi "$processor" "$dump"
        "$each" "$processor" "$dump" || changed+=" $processor"
    done
    [ -z "$changed" ] || fail "the binary interface is not the accepted one, see above:$changed
     Next: undo what changed it. Where the change is meant, and every daemon is built anew with
     it: ./dev abi --accept, and commit abi/ with the reason."
}
