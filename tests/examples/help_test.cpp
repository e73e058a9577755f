// Every example tells how it is used, and its help is right: each program that was built is asked.
#include <gmock/gmock.h>

#include <filesystem>
#include <regex>
#include <set>

#include "program.hpp"

using namespace vyt::test;

namespace {

namespace fs = std::filesystem;

bool is_program(const fs::directory_entry &entry)
{
    return entry.is_regular_file() &&
           (entry.status().permissions() & fs::perms::owner_exec) != fs::perms::none;
}

// "vrrp_monitor", "demo/run" ...
std::set<std::string> programs()
{
    std::set<std::string> names;
    for (const std::string folder : {"", "demo/"}) {
        for (const auto &entry : fs::directory_iterator(example(folder))) {
            if (is_program(entry))
                names.insert(folder + entry.path().filename().string());
        }
    }
    return names;
}

std::set<std::string> all_matches(const std::string &text, const std::regex &form)
{
    std::set<std::string> found;
    for (std::sregex_iterator it(text.begin(), text.end(), form), end; it != end; ++it)
        found.insert((*it)[1]);
    return found;
}

// The options that a program takes, from its source: "-g", "--help" ...
std::set<std::string> options_in_source(const std::string &name)
{
    const std::string path = std::string(VYT_SOURCE_DIR) + "/examples/" + name;
    std::set<std::string> options;
    if (!fs::exists(path + ".c")) { // a script: the labels of its case
        const std::regex label(R"(\n    (--?[a-z]+(?: \| --?[a-z]+)*)\))");
        for (const std::string &labels : all_matches(read_file(path), label))
            options.merge(all_matches(labels, std::regex("(--?[a-z]+)")));
        return options;
    }
    const std::string source = read_file(path + ".c");
    const auto letters =
        all_matches(source, std::regex(R"RX(getopt_long\(argc, argv, "\+([^"]*)")RX"));
    EXPECT_EQ(letters.size(), 1u) << name;
    for (const std::string &letter : all_matches(*letters.begin(), std::regex("([a-z])")))
        options.insert("-" + letter);
    for (const std::string &word :
         all_matches(source, std::regex(R"RX(\{"([a-z-]+)", (?:no|required)_argument)RX")))
        options.insert("--" + word);
    return options;
}

// The options that a help explains: "  -h, --help  show this text".
std::set<std::string> options_in_help(const std::string &help)
{
    std::set<std::string> options;
    for (const std::string &words :
         all_matches(help, std::regex(R"(\n  ((?:-[a-z], )?--?[a-z-]+))")))
        options.merge(all_matches(words, std::regex("(--?[a-z-]+)")));
    return options;
}

class Help : public ::testing::Test {
  protected:
    static std::string base(const std::string &name) { return fs::path(name).filename(); }
    // The usage lines: the first one, and those that begin below its program's name.
    static std::string usage(const std::string &output)
    {
        size_t end = output.find('\n');
        while (end != std::string::npos && output.compare(end + 1, 7, "       ") == 0)
            end = output.find('\n', end + 1);
        return output.substr(0, end + 1);
    }
};

} // namespace

TEST_F(Help, EveryExampleIsAsked)
{
    std::set<std::string> sources;
    for (const auto &entry : fs::directory_iterator(std::string(VYT_SOURCE_DIR) + "/examples")) {
        if (entry.path().extension() == ".c" &&
            read_file(entry.path()).find("\nint main(") != std::string::npos)
            sources.insert(entry.path().stem());
    }
    sources.insert({"demo/run", "demo/vrrpd"});
    EXPECT_EQ(programs(), sources);
}

TEST_F(Help, GoesToStandardOutputAndEndsWithNought)
{
    for (const std::string &name : programs()) {
        SCOPED_TRACE(name);
        for (const char *option : {"--help", "-h"}) {
            const Outcome outcome = run({example(name), option});
            EXPECT_EQ(outcome.status, 0);
            EXPECT_EQ(outcome.output.rfind("usage: " + base(name) + " ", 0), 0u) << outcome.output;
            EXPECT_THAT(outcome.output, ::testing::HasSubstr("\nEnds with ")); // its exit statuses
            EXPECT_EQ(outcome.errors, "");
        }
    }
}

TEST_F(Help, ExplainsEveryOptionThatIsTakenAndNoOther)
{
    for (const std::string &name : programs()) {
        SCOPED_TRACE(name);
        const std::string help = run({example(name), "--help"}).output;
        const std::set<std::string> taken = options_in_source(name);
        EXPECT_EQ(options_in_help(help), taken);
        // All but the help itself stand in the usage lines, too.
        for (const std::string &option : taken) {
            if (option == "-h" || option == "--help")
                continue;
            EXPECT_TRUE(std::regex_search(usage(help), std::regex("[[ ]" + option + "[] |]")))
                << option;
        }
    }
}

TEST_F(Help, FitsATerminal)
{
    for (const std::string &name : programs()) {
        for (const std::string &line :
             all_matches(run({example(name), "--help"}).output, std::regex("([^\n]+)")))
            EXPECT_LE(line.size(), 100u) << name << ": " << line;
    }
}

TEST_F(Help, AnUnknownOptionGetsTheUsageOnStandardErrorAndTwo)
{
    for (const std::string &name : programs()) {
        const std::string lines = usage(run({example(name), "--help"}).output);
        for (const char *option : {"--nonsense", "-X"}) {
            SCOPED_TRACE(name + " " + option);
            const Outcome outcome = run({example(name), option});
            EXPECT_EQ(outcome.status, 2);
            EXPECT_EQ(outcome.output, "");
            EXPECT_THAT(outcome.errors, ::testing::EndsWith(lines));
        }
    }
}
