// The examples that the reference shows: each is run, and prints what stands at its end.
#include <gmock/gmock.h>

#include <algorithm>
#include <filesystem>
#include <regex>

#include "examples/program.hpp"
#include "ns/netns_fixture.hpp"

using namespace vyt::test;

namespace {

std::filesystem::path snippet_source(const std::string &name)
{
    return std::filesystem::path(VYT_SOURCE_DIR) / "docs/snippets" / (name + ".c");
}

std::vector<std::string> names_in(const std::string &directory, const std::string &extension)
{
    std::vector<std::string> names;
    for (const auto &file :
         std::filesystem::directory_iterator(std::filesystem::path(VYT_SOURCE_DIR) / directory)) {
        if (file.path().extension() == extension)
            names.push_back(file.path().stem());
    }
    std::sort(names.begin(), names.end());
    return names;
}

// The comment at the end: "Prints:" and the lines.
std::string promised_output(const std::string &name)
{
    const std::string text = read_file(snippet_source(name));
    const std::string start = "/* Prints:\n";
    const size_t at = text.find(start);
    if (at == std::string::npos)
        return "(nothing is promised)";
    const size_t begin = at + start.size();
    const std::string lines = text.substr(begin, text.find(" */", begin) - begin);
    static const std::regex decoration(R"((^|\n) \* ?)");
    return std::regex_replace(lines, decoration, "$1");
}

} // namespace

// A private world with the default VRF and one more, "blue".
class Snippets : public Netns, public ::testing::WithParamInterface<std::string> {
  protected:
    Snippets()
    {
        name_own_namespace("1");
        make_namespace("blue");
        write_file("/run/vrfs.map", "1:0\nblue:3\n");
    }
};

TEST_P(Snippets, PrintsWhatStandsAtItsEnd)
{
    TempDir directory;
    const auto before = [&] {
        if (GetParam() == "syslog_wireguard") {
            unshare(CLONE_NEWNS); // the program alone sees the stand-in for /proc
            world_.make_proc_writable();
            write_file("/proc/wireguard", "0x0\n");
        }
        std::filesystem::current_path(directory.path());
    };
    const Outcome outcome =
        run({std::string(VYT_BINARY_DIR) + "/docs/snippets/" + GetParam()}, "", before);
    EXPECT_EQ(outcome.output, promised_output(GetParam()));
    EXPECT_EQ(outcome.errors, "");
    EXPECT_EQ(outcome.status, 0);
}

INSTANTIATE_TEST_SUITE_P(Reference, Snippets, ::testing::ValuesIn(names_in("docs/snippets", ".c")),
                         [](const auto &info) { return info.param; });

TEST(SnippetFiles, ThereIsOneForEachHeader)
{
    EXPECT_EQ(names_in("docs/snippets", ".c"), names_in("include", ".h"));
}
