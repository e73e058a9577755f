// Other symbols under which a library calls what its source calls by a plain name: the checked
// variants of a fortified build, and what an optimising <stdio.h> calls instead.
#pragma once

#include <string>

namespace vyt::test {

// The name in the source: "vsnprintf" for "__vsnprintf_chk"; a plain name is its own.
std::string plain_name(const std::string &symbol);

// What a link to the symbol must lead to, so that its calls reach the wrapper of the plain name.
// Throws where aliases.cpp does not know the arguments that the symbol takes.
void *entry_of(const std::string &symbol, void *wrapper);

} // namespace vyt::test
