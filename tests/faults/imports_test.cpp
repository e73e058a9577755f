// What the library calls from others: each call either fails in the sweeps or cannot fail.
#include <gmock/gmock.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "support/aliases.hpp"
#include "support/elf.hpp"
#include "support/fault_sweep.hpp"
#include "support/faults.hpp"

using namespace vyt::test;
using ::testing::IsEmpty;

namespace {

struct infallible {
    const char *reason;
    std::vector<const char *> names; // "yaml_*": all that start so
};

const std::vector<infallible> infallibles = {
    {"reads and writes the caller's memory only",
     {"memchr",  "memcmp",  "memcpy",    "memmove",   "mempcpy",  "memrchr",
      "memset",  "bcmp",    "strchr",    "strchrnul", "strcmp",   "strlcpy",
      "strlen",  "strnlen", "strrchr",   "strtol",    "atoi",     "isprint",
      "tolower", "toupper", "alphasort", "strerror",  "strftime", "strptime"}},
    {"has no failure to report", {"free", "getpid", "time", "tzset", "umask", "feof", "ungetc"}},
    {"always finds a processor; no answer at all is tried where it is asked for", {"get_nprocs"}},
    {"only its arguments can let it fail; tried where a caller chooses them",
     {"snprintf", "__isoc99_sscanf"}},
    {"the log takes what it is given", {"syslog", "SYSLOG_flag_get", "SYSLOG_message"}},
    {"the board's clock answers always", {"clockgettime", "clocktimerexpired"}},
    {"fails with the memory and the streams of libyaml, whose own calls are swept", {"yaml_*"}},
    {"the compiler's and the loader's own",
     {"__errno_location", "__libc_current_sigrtmin", "__stack_chk_fail", "__stack_chk_guard",
      "__cxa_finalize", "_ZSt21__glibcxx_assert_fail*", "__gmon_start__", "_ITM_*", "__asan_*",
      "__ubsan_*", "__tsan_*", "__sanitizer_*"}},
};

bool fits(const std::string &name, const char *pattern)
{
    const size_t length = strlen(pattern);
    if (pattern[length - 1] == '*')
        return name.compare(0, length - 1, pattern, length - 1) == 0;
    return name == pattern;
}

bool is_infallible(const std::string &name)
{
    for (const infallible &group : infallibles) {
        for (const char *pattern : group.names) {
            if (fits(name, pattern))
                return true;
        }
    }
    return false;
}

bool counts_coverage(const Elf &library)
{
    const auto symbols = library.all_symbols();
    return std::any_of(symbols.begin(), symbols.end(), [](const elf_symbol &s) {
        return fits(s.name, "__gcov_*") || fits(s.name, "__llvm_*");
    });
}

} // namespace

TEST(Imports, EachCallOfTheLibraryIsSweptOrCannotFail)
{
    const Elf library(VYT_LIBRARY_FILE);
    if (counts_coverage(library))
        GTEST_SKIP() << "the coverage counters call for themselves";
    const auto fallible = fallible_calls();
    std::vector<std::string> forgotten;
    size_t swept = 0;
    for (const elf_symbol &symbol : library.dynamic_symbols()) {
        const std::string name = plain_name(symbol.name);
        if (symbol.defined || name.empty() || is_infallible(name))
            continue;
        const bool is_swept = std::count(fallible.begin(), fallible.end(), name) != 0;
        swept += is_swept;
        if (!is_swept)
            forgotten.push_back(symbol.name);
    }
    EXPECT_THAT(forgotten, IsEmpty())
        << "give them a hook in faults.cpp and their errors in fault_errors.cpp, or a reason here";
    EXPECT_GT(swept, 50u);
}

TEST(Imports, EachFallibleCallIsHooked)
{
    for (const std::string &call : fallible_calls()) {
        EXPECT_TRUE(Faults::know(call)) << call;
        EXPECT_FALSE(is_infallible(call)) << call;
    }
}
