// The library's own data, by its symbols: for the caches that last as long as the process.
#pragma once

#include <dlfcn.h>
#include <link.h>
#include <stdexcept>
#include <string>

#include "support/elf.hpp"

namespace vyt::fuzz {

// Where the library's object with this (mangled) name lies in memory. `known` is any of the
// library's exported functions.
inline void *library_object(const std::string &name, const void *known)
{
    Dl_info info;
    if (dladdr(known, &info) == 0)
        throw std::runtime_error("the library is not loaded");
    void *found = nullptr;
    for (const vyt::test::elf_symbol &symbol : vyt::test::Elf(info.dli_fname).all_symbols()) {
        if (symbol.name != name)
            continue;
        if (found != nullptr)
            throw std::runtime_error("the library has more than one " + name);
        found = static_cast<char *>(info.dli_fbase) + symbol.address;
    }
    if (found == nullptr)
        throw std::runtime_error("the library has no " + name);
    return found;
}

} // namespace vyt::fuzz
