// Every exported function has its faults swept.
#include <gmock/gmock.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "support/elf.hpp"

using namespace vyt::test;
using ::testing::IsEmpty;

namespace {

using names = std::set<std::string>;

names exported_functions()
{
    names functions;
    for (const elf_symbol &symbol : Elf(VYT_LIBRARY_FILE).dynamic_symbols()) {
        if (symbol.defined && symbol.function)
            functions.insert(symbol.name);
    }
    return functions;
}

// The tests of an executable, which are named after the functions that they sweep.
names listed_by(const std::filesystem::path &program)
{
    names functions;
    FILE *list =
        popen((VYT_EMULATOR " '" + program.string() + "' --gtest_list_tests").c_str(), "r");
    if (list == nullptr) {
        ADD_FAILURE() << program << " cannot be run";
        return functions;
    }
    char line[256];
    while (fgets(line, sizeof(line), list) != nullptr) {
        const std::string text = line;
        if (text.compare(0, 2, "  ") == 0)
            functions.insert(text.substr(2, text.find_first_of("\n ", 2) - 2));
    }
    EXPECT_EQ(pclose(list), 0) << program;
    return functions;
}

names swept_functions()
{
    names functions;
    const std::filesystem::path sources = VYT_SOURCE_DIR "/tests/faults";
    for (const auto &entry : std::filesystem::directory_iterator(sources)) {
        const std::string name = entry.path().stem();
        if (name.size() > 12 && name.compare(name.size() - 12, 12, "_faults_test") == 0)
            functions.merge(listed_by(VYT_BINARY_DIR "/tests/faults_" + name));
    }
    return functions;
}

names without(const names &all, const names &some)
{
    names rest;
    std::set_difference(all.begin(), all.end(), some.begin(), some.end(),
                        std::inserter(rest, rest.end()));
    return rest;
}

} // namespace

TEST(FaultSweeps, CoverEveryExportedFunction)
{
    EXPECT_THAT(without(exported_functions(), swept_functions()), IsEmpty());
}

TEST(FaultSweeps, NameOnlyExportedFunctions)
{
    const names swept = swept_functions();
    EXPECT_THAT(swept, Not(IsEmpty()));
    EXPECT_THAT(without(swept, exported_functions()), IsEmpty());
}
