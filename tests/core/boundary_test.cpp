// What the shared object shows to daemons, and what it wants from others.
#include <gmock/gmock.h>

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <map>
#include <regex>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/elf.hpp"
#include "support/process.hpp"

using namespace vyt::test;
using ::testing::AnyOf;
using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::IsSupersetOf;
using ::testing::MatchesRegex;
using ::testing::Not;
using ::testing::SizeIs;

using names = std::set<std::string>;

namespace {

std::vector<std::string> statements(const std::string &text)
{
    std::vector<std::string> found;
    size_t start = 0;
    for (size_t end; (end = text.find(';', start)) != std::string::npos; start = end + 1)
        found.push_back(text.substr(start, end - start));
    return found;
}

// The map ----------------------------------------------------------------------------------------

struct map_section {
    std::string header;
    std::vector<std::string> symbols;
};

// src/exports.map: a comment with a header's name starts a section.
std::vector<map_section> exports_map()
{
    const std::string text = read_file(std::string(VYT_SOURCE_DIR) + "/src/exports.map");
    const size_t start = text.find("global:");
    const size_t end = text.find("local:");
    if (start == std::string::npos || end == std::string::npos)
        throw std::runtime_error("src/exports.map has no 'global:' or no 'local:'");
    const std::string global = text.substr(start + 7, end - start - 7);
    static const std::regex item(R"(/\* (\w+\.h) \*/|([A-Za-z_]\w*);)");
    std::vector<map_section> sections;
    for (std::sregex_iterator i(global.begin(), global.end(), item), last; i != last; ++i) {
        if ((*i)[1].matched)
            sections.push_back({(*i)[1].str(), {}});
        else
            sections.at(sections.size() - 1).symbols.push_back((*i)[2].str());
    }
    return sections;
}

names exported()
{
    names all;
    for (const map_section &section : exports_map())
        all.insert(section.symbols.begin(), section.symbols.end());
    return all;
}

names without(const names &all, const names &taken_away)
{
    names rest;
    std::set_difference(all.begin(), all.end(), taken_away.begin(), taken_away.end(),
                        std::inserter(rest, rest.end()));
    return rest;
}

// The symbols of the interface in abi/ that was accepted for a processor.
names accepted(const std::string &interface)
{
    static const std::regex symbol(R"re(<elf-symbol name="(\w+)")re");
    names all;
    for (std::sregex_iterator i(interface.begin(), interface.end(), symbol), last; i != last; ++i)
        all.insert((*i)[1].str());
    return all;
}

// The headers ------------------------------------------------------------------------------------

std::string without_comments(std::string text)
{
    for (size_t start; (start = text.find("/*")) != std::string::npos;) {
        const size_t end = text.find("*/", start);
        if (end == std::string::npos)
            throw std::runtime_error("a comment has no end");
        text.replace(start, end + 2 - start, " ");
    }
    static const std::regex line_comment("//[^\n]*");
    return std::regex_replace(text, line_comment, "");
}

// The text without what stands in braces; an empty statement is left in its place.
std::string without_bodies(const std::string &text)
{
    std::string outside;
    int depth = 0;
    for (const char c : text) {
        depth += c == '{';
        if (depth == 0)
            outside += c;
        if (c == '}' && --depth == 0)
            outside += ';';
    }
    return outside;
}

// The exported name that a statement of a header declares, or nothing.
std::string declared_name(const std::string &statement)
{
    static const std::regex attribute(R"(__attribute__\s*\(\((?:[^()]|\([^()]*\))*\)\))");
    static const std::regex no_symbol(R"(^\s*(?:typedef|static|inline)\b[^]*)");
    static const std::regex function(R"(^[^()]*?([A-Za-z_]\w*)\s*\([^]*\)\s*$)");
    static const std::regex object(R"(^\s*extern\b[^()]*?([A-Za-z_]\w*)\s*(?:\[[^\]]*\])?\s*$)");
    const std::string plain = std::regex_replace(statement, attribute, "");
    std::smatch match;
    if (std::regex_match(plain, no_symbol))
        return "";
    if (std::regex_match(plain, match, function) || std::regex_match(plain, match, object))
        return match[1].str();
    return "";
}

// What a public header declares in C.
std::vector<std::string> declared_in(const std::filesystem::path &header)
{
    static const std::regex for_cxx(R"(#ifdef __cplusplus\b[^]*?#endif)");
    static const std::regex directive(R"((^|\n)[ \t]*#(?:[^\n\\]|\\[^])*)");
    const std::string text = std::regex_replace(without_comments(read_file(header)), for_cxx, "");
    std::vector<std::string> declared;
    for (const std::string &statement :
         statements(without_bodies(std::regex_replace(text, directive, "$1")))) {
        if (const std::string name = declared_name(statement); !name.empty())
            declared.push_back(name);
    }
    return declared;
}

// The headers that declare a name, for every declared name. The checks are left out: they expand
// where they stand, and what they declare is no symbol.
std::map<std::string, std::vector<std::string>> declarations()
{
    std::map<std::string, std::vector<std::string>> headers_of;
    for (const auto &header :
         std::filesystem::directory_iterator(std::string(VYT_SOURCE_DIR) + "/include")) {
        if (header.path().filename() == "lh_check.h")
            continue;
        for (const std::string &name : declared_in(header.path()))
            headers_of[name].push_back(header.path().filename());
    }
    return headers_of;
}

// The object -------------------------------------------------------------------------------------

const Elf &library()
{
    static const Elf elf(VYT_LIBRARY_FILE);
    return elf;
}

names undefined()
{
    names all;
    for (const elf_symbol &symbol : library().dynamic_symbols()) {
        if (!symbol.defined)
            all.insert(symbol.name);
    }
    return all;
}

// Sanitizers, the coverage counter and the C++ library's assertions bring a runtime and constructors
// of their own.
bool is_instrumented()
{
    static const std::regex runtime(R"(__(?:asan|tsan|ubsan|gcov)_.*|.*__glibcxx_assert_fail.*)");
    const auto symbols = library().all_symbols();
    return std::any_of(symbols.begin(), symbols.end(), [](const elf_symbol &symbol) {
        return std::regex_match(symbol.name, runtime);
    });
}

#define NEEDS_A_PLAIN_BUILD()                                                                      \
    if (is_instrumented())                                                                         \
    GTEST_SKIP() << "the compiler has added a runtime of its own to this build"

} // namespace

TEST(Boundary, TheObjectShowsExactlyWhatTheMapNames)
{
    names defined;
    for (const elf_symbol &symbol : library().dynamic_symbols()) {
        if (symbol.defined)
            defined.insert(symbol.name);
    }
    EXPECT_THAT(without(defined, exported()), IsEmpty()) << "shown, but not in the map";
    EXPECT_THAT(without(exported(), defined), IsEmpty()) << "in the map, but not in the object";
}

TEST(Boundary, TheMapIsSortedAndNamesEachSymbolOnce)
{
    std::vector<std::string> headers;
    std::vector<std::string> all;
    for (const map_section &section : exports_map()) {
        headers.push_back(section.header);
        EXPECT_TRUE(std::is_sorted(section.symbols.begin(), section.symbols.end()))
            << section.header;
        all.insert(all.end(), section.symbols.begin(), section.symbols.end());
    }
    EXPECT_TRUE(std::is_sorted(headers.begin(), headers.end()));
    EXPECT_EQ(all.size(), exported().size()) << "a name stands in the map twice";
}

TEST(Boundary, EverySymbolIsDeclaredInExactlyTheHeaderOfItsSection)
{
    const auto headers_of = declarations();
    for (const map_section &section : exports_map()) {
        for (const std::string &name : section.symbols) {
            ASSERT_TRUE(headers_of.contains(name)) << name << " is declared nowhere";
            EXPECT_THAT(headers_of.at(name), ElementsAre(section.header)) << name;
        }
    }
}

TEST(Boundary, EverythingDeclaredIsInTheMap)
{
    const names all = exported();
    for (const auto &[name, headers] : declarations())
        EXPECT_TRUE(all.contains(name)) << name << " of " << headers.front();
}

TEST(Boundary, TheAcceptedInterfacesNameWhatTheMapNamesAndNoPlaceOnAMachine)
{
    for (const char *processor : {"aarch64", "x86_64"}) {
        const std::string path = std::string(VYT_SOURCE_DIR) + "/abi/" + processor + ".abi";
        const std::string interface = read_file(path);
        EXPECT_EQ(accepted(interface), exported()) << processor << ": see ./dev abi";
        EXPECT_EQ(interface.find("=\"/"), std::string::npos) << processor;
    }
}

TEST(Boundary, TheDataObjectsHaveTheirSizesAndAreZeroAtLoad)
{
    NEEDS_A_PLAIN_BUILD(); // clang's address sanitizer counts the room that it leaves around them
    const std::map<std::string, uint64_t> promised = {{"shmem_init_err_t", 4}, {"garp_delay", 8}};
    std::map<std::string, uint64_t> found;
    for (const elf_symbol &symbol : library().dynamic_symbols()) {
        if (symbol.defined && !symbol.function) {
            found[symbol.name] = symbol.size;
            EXPECT_TRUE(symbol.zero_at_load) << symbol.name;
        }
    }
    EXPECT_EQ(found, promised);
}

TEST(Boundary, TheSonameIsTheOneThatDaemonsAskFor)
{
    EXPECT_THAT(library().dynamic_texts(DT_SONAME), ElementsAre("libVYThelpers.so"));
}

TEST(Boundary, NoCxxRuntimeIsNeeded)
{
    NEEDS_A_PLAIN_BUILD();
    const auto needed = library().dynamic_texts(DT_NEEDED);
    EXPECT_THAT(needed, Contains(MatchesRegex("libc\\.so.*")));
    EXPECT_THAT(needed, Each(Not(MatchesRegex("lib(stdc\\+\\+|gcc_s|c\\+\\+|supc\\+\\+).*"))));
}

TEST(Boundary, LoadingRunsNoConstructor)
{
    NEEDS_A_PLAIN_BUILD();
    for (const char *section : {".init", ".init_array", ".ctors"})
        EXPECT_EQ(library().section_size(section), 0u) << section;
    for (const int64_t tag : {DT_INIT, DT_INIT_ARRAY})
        EXPECT_THAT(library().dynamic_values(tag), IsEmpty());
}

TEST(Boundary, TheBoardsFunctionsAreLeftToTheBoard)
{
    EXPECT_THAT(undefined(), IsSupersetOf({"SYSLOG_flag_get", "SYSLOG_message", "clockgettime",
                                           "clocktimerexpired", "get_alive_mgr_pid", "strlcpy"}));
}

TEST(Boundary, LinesGoToTheSymbolSyslogItself)
{
    EXPECT_THAT(undefined(), Contains("syslog"));
    EXPECT_THAT(undefined(), Each(Not(MatchesRegex("vsyslog|openlog|__.*syslog.*_chk"))));
}

TEST(Boundary, TheProcessIsLeftToTheDaemon)
{
    NEEDS_A_PLAIN_BUILD(); // a sanitizer asks the environment and ends processes
    EXPECT_THAT(undefined(), Contains("fork"));
    for (const char *name : {"getenv", "secure_getenv", "setenv", "pthread_create", "abort", "exit",
                             "_exit", "openlog", "closelog"})
        EXPECT_THAT(undefined(), Not(Contains(name)));
}

TEST(Boundary, LinksAreResolvedAtLoadAndReadOnlyAfterwards)
{
    EXPECT_THAT(library().segment_flags(PT_GNU_RELRO), SizeIs(1));
    const auto flags = library().dynamic_values(DT_FLAGS);
    const auto flags_1 = library().dynamic_values(DT_FLAGS_1);
    const bool now = !library().dynamic_values(DT_BIND_NOW).empty() ||
                     (!flags.empty() && (flags.front() & DF_BIND_NOW) != 0) ||
                     (!flags_1.empty() && (flags_1.front() & DF_1_NOW) != 0);
    EXPECT_TRUE(now);
    EXPECT_EQ(library().section_size(".got.plt"), 0u) << "a table that stays writable";
    EXPECT_THAT(library().dynamic_values(DT_TEXTREL), SizeIs(0));
}

TEST(Boundary, NothingIsWritableAndExecutable)
{
    EXPECT_THAT(library().segment_flags(PT_GNU_STACK), ElementsAre(PF_R | PF_W));
    for (const uint32_t flags : library().segment_flags(PT_LOAD))
        EXPECT_NE(flags & (PF_W | PF_X), uint32_t{PF_W | PF_X});
}

TEST(Boundary, AnOverrunStackIsNoticedBeforeTheReturn)
{
    EXPECT_THAT(undefined(), Contains("__stack_chk_fail"));
}

#ifdef __aarch64__

TEST(Boundary, TheLoaderIsAskedToGuardBranches)
{
    NEEDS_A_PLAIN_BUILD();
    const uint32_t features = library().property(GNU_PROPERTY_AARCH64_FEATURE_1_AND);
    EXPECT_EQ(features,
              uint32_t{GNU_PROPERTY_AARCH64_FEATURE_1_BTI | GNU_PROPERTY_AARCH64_FEATURE_1_PAC});
}

TEST(Boundary, EveryFunctionIsAPlaceWhereABranchMayLand)
{
    constexpr uint32_t bti_c = 0xd503245f, paciasp = 0xd503233f;
    size_t signed_returns = 0;
    for (const elf_symbol &symbol : library().dynamic_symbols()) {
        if (!symbol.defined || !symbol.function)
            continue;
        const uint32_t first = library().word_at(symbol.address);
        EXPECT_THAT(first, AnyOf(bti_c, paciasp)) << symbol.name;
        signed_returns += first == paciasp;
    }
    EXPECT_GT(signed_returns, 0u);
}

#endif
