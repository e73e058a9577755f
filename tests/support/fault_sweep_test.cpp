// The fault driver itself: what is not as promised is seen.
#include "support/fault_sweep.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest-spi.h>

#include <csignal>
#include <fcntl.h>
#include <unistd.h>

#include "lh_bf.h"
#include "lh_close.h"

using namespace vyt::test;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::SizeIs;

namespace {

const std::string reported = "lh_close: close(*fd) failed";

std::string close_once(Attempt &a)
{
    int fd = open("/dev/null", O_RDONLY);
    return shown(a.faulted([&] { return lh_close(&fd); }));
}

scenario closing()
{
    return {.function = "lh_close",
            .body = close_once,
            .outcome = "0",
            .faults = {fails("close", "-1", {reported})}};
}

std::vector<std::string> complaints_about(const scenario &tried)
{
    using reporter = ::testing::ScopedFakeTestPartResultReporter;
    ::testing::TestPartResultArray failures;
    {
        const reporter caught(reporter::INTERCEPT_ONLY_CURRENT_THREAD, &failures);
        sweep_faults({tried});
    }
    std::vector<std::string> complaints;
    for (int i = 0; i < failures.size(); i++)
        complaints.emplace_back(failures.GetTestPartResult(i).message());
    return complaints;
}

} // namespace

TEST(FaultSweep, CountsSitesAndFaults)
{
    const tally result = sweep_faults({closing()});
    EXPECT_EQ(result.sites, 1u);
    EXPECT_EQ(result.faults, errors_of("close").size());
    EXPECT_EQ(result.failed, 0u);
}

TEST(FaultSweep, SeesAnotherOutcomeWithoutAFaultAlsoAtTheNextCall)
{
    scenario s = closing();
    s.outcome = "1";
    const auto complaints = complaints_about(s);
    EXPECT_THAT(complaints, SizeIs(1 + errors_of("close").size()));
    EXPECT_THAT(complaints, Each(HasSubstr("gave 0, not 1")));
    EXPECT_THAT(complaints.back(), HasSubstr("the next call: gave 0, not 1"));
}

TEST(FaultSweep, SeesAnotherOutcomeOfAFault)
{
    scenario s = closing();
    s.faults.insert(s.faults.begin(), fails("close", "-2", {reported}).with({EIO}));
    EXPECT_THAT(complaints_about(s), ElementsAre(HasSubstr("close:1 EIO:\n    gave -1, not -2")));
}

TEST(FaultSweep, SeesALineTooManyAndAMissingOne)
{
    scenario s = closing();
    s.faults = {fails("close", "-1").with({EIO}),
                fails("close", "-1", {reported, "another"}).with({EINTR}),
                fails("close", "-1", {reported})};
    EXPECT_THAT(
        complaints_about(s),
        ElementsAre(HasSubstr("close:1 EINTR:\n    logged\n      " + reported +
                              "\n    not\n      " + reported + "\n      another"),
                    HasSubstr("close:1 EIO:\n    logged\n      " + reported + "\n    not none")));
}

TEST(FaultSweep, SeesAnotherErrno)
{
    scenario s = closing();
    s.faults.insert(s.faults.begin(), fails("close", "-1", {reported}).with({EIO}).errno_kept());
    EXPECT_THAT(complaints_about(s), ElementsAre(HasSubstr("errno is Input/output error, not ")));
}

TEST(FaultSweep, SeesASiteWithoutARule)
{
    scenario s = closing();
    s.faults = {fails("close", "-1", {reported}).with({EIO, EINTR, ENOSPC})};
    EXPECT_THAT(
        complaints_about(s),
        ElementsAre(EndsWith("close:1 EDQUOT: the scenario does not say what is promised")));
}

TEST(FaultSweep, SeesARuleWithoutASite)
{
    scenario s = closing();
    s.faults.push_back(ignored("open"));
    EXPECT_THAT(complaints_about(s), ElementsAre(EndsWith("the rule for open fits no call")));
}

TEST(FaultSweep, SeesADescriptorThatStaysOpen)
{
    scenario s = closing();
    s.body = [](Attempt &a) {
        const std::string outcome = close_once(a);
        if (a.error() == EIO && open("/dev/null", O_RDONLY) < 0)
            return std::string("not opened");
        return outcome;
    };
    EXPECT_THAT(complaints_about(s),
                ElementsAre(HasSubstr("close:1 EIO:\n    other descriptors are open than before")));
}

TEST(FaultSweep, SeesMemoryThatIsNotGivenBack)
{
    const scenario s = {.function = "lh_bf_alloc",
                        .body =
                            [](Attempt &a) {
                                const uint8_t bits = 0;
                                lh_bf_t *bf = a.faulted([&] { return lh_bf_alloc(&bits, 1); });
                                return shown(static_cast<void *>(bf));
                            },
                        .outcome = "set"};
    const auto complaints = complaints_about(s);
    EXPECT_THAT(complaints.front(), HasSubstr("without a fault:\n    not given back:\n      "));
}

TEST(FaultSweep, SeesACrash)
{
    scenario s = closing();
    s.body = [](Attempt &a) {
        const std::string outcome = close_once(a);
        if (a.error() == EIO)
            raise(SIGKILL);
        return outcome;
    };
    EXPECT_THAT(complaints_about(s),
                ElementsAre(HasSubstr("close:1 EIO:\n    ended by the signal Killed")));
}

TEST(FaultSweep, SeesAnExpectationThatFailsInABody)
{
    scenario s = closing();
    s.faults.clear();
    s.body = [](Attempt &) {
        ADD_FAILURE() << "meant to fail, in a child";
        return std::string("0");
    };
    EXPECT_EQ(run_in_child([&]() -> int { _exit(sweep_faults({s}).failed == 1 ? 42 : 43); }), 42);
}
