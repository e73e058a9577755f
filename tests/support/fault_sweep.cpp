#include "support/fault_sweep.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <regex>
#include <sys/wait.h>
#include <unistd.h>

#include "lh_process.h"
#include "support/log_capture.hpp"

namespace vyt::test {
namespace {

constexpr int errno_before = EDOM; // no call gives it
constexpr unsigned patience = 120; // seconds for one run

// A close that fails has released what it closes all the same.
bool releases(const std::string &call)
{
    return call == "close" || call == "fclose" || call == "closedir" || call == "munmap";
}

std::string replaced(std::string text, const std::string &what, const std::string &with)
{
    for (size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += with.size())
        text.replace(at, what.size(), with);
    return text;
}

std::string joined(const std::vector<std::string> &lines)
{
    std::string text;
    for (const std::string &line : lines)
        text += "\n      " + line;
    return text.empty() ? " none" : text;
}

std::string name_of(const fault &f)
{
    if (f.nth == 0)
        return "without a fault";
    return f.call + ":" + std::to_string(f.nth) + " " +
           (f.error == 0 ? "half as long" : strerrorname_np(f.error));
}

// One run, in the child ---------------------------------------------------------------------------

struct promise {
    std::string outcome;
    std::vector<std::string> lines;
    errno_after after = errno_after::unpromised;
    bool anything = false;
};

// A line may hold the source line of the message's own, as "<function:12>".
std::vector<std::string> without_numbers(std::vector<std::string> lines)
{
    static const std::regex number(R"(<([A-Za-z_0-9]+):[1-9][0-9]*>)");
    for (std::string &line : lines)
        line = std::regex_replace(line, number, "<$1:#>");
    return lines;
}

// What a child tells its parent: the calls that were counted, and what was not as promised.
struct report {
    std::map<std::string, unsigned> calls;
    std::vector<std::string> wrongs;
};

class Run {
  public:
    Run(const scenario &tried, const fault &armed) : tried_(tried), armed_(armed) {}

    report hold(const promise &promised)
    {
        if (!tried_.cold)
            lh_process_self_name_get();
        one(armed_, promised);
        if (armed_.nth != 0)
            one({}, {tried_.outcome, tried_.lines});
        return report_;
    }

  private:
    void wrong(const std::string &text) { report_.wrongs.push_back(text); }

    void one(const fault &armed, const promise &promised)
    {
        const std::string when = armed.nth == 0 && armed_.nth != 0 ? "the next call: " : "";
        const auto descriptors = open_descriptors();
        Attempt attempt(armed, tried_.also);
        take_lines();
        const std::string outcome = tried_.body(attempt);
        const auto lines = without_numbers(take_lines());

        if (!promised.anything && outcome != filled(promised.outcome, armed, attempt))
            wrong(when + "gave " + outcome + ", not " + filled(promised.outcome, armed, attempt));
        std::vector<std::string> expected;
        for (const std::string &line : promised.lines)
            expected.push_back(filled(line, armed, attempt));
        if (!promised.anything && lines != expected)
            wrong(when + "logged" + joined(lines) + "\n    not" + joined(expected));
        hold_errno(armed, promised, attempt);
        if (const auto held = attempt.faults().held(); !held.empty())
            wrong(when + "not given back:" + joined(held));
        if (open_descriptors() != descriptors)
            wrong(when + "other descriptors are open than before");
        if (armed.nth == 0)
            report_.calls = attempt.calls();
        else if (!attempt.happened() && !of_child(armed.call))
            wrong("the call was not made this time");
    }

    void hold_errno(const fault &armed, const promise &promised, const Attempt &attempt)
    {
        if (promised.after == errno_after::unpromised)
            return;
        const int expected = promised.after == errno_after::kept ? errno_before : armed.error;
        if (attempt.error() != expected)
            wrong(std::string("errno is ") + strerror(attempt.error()) + ", not " +
                  strerror(expected));
    }

    bool of_child(const std::string &call) const
    {
        return std::count(tried_.calls_of_child.begin(), tried_.calls_of_child.end(), call) != 0;
    }

    static std::string filled(std::string text, const fault &armed, const Attempt &attempt)
    {
        text = replaced(std::move(text), "{error}", strerror(armed.error));
        text = replaced(std::move(text), "{code}", std::to_string(armed.error));
        text = replaced(std::move(text), "{dir}", attempt.directory());
        return replaced(std::move(text), "{pid}", std::to_string(getpid()));
    }

    const scenario &tried_;
    const fault &armed_;
    report report_;
};

// The way between the two processes: records that end with a zero byte, a letter first.
std::string packed(const report &told)
{
    std::string text;
    for (const auto &[call, count] : told.calls)
        text += "c" + call + " " + std::to_string(count) + '\0';
    for (const std::string &wrong : told.wrongs)
        text += "w" + wrong + '\0';
    return text;
}

report unpacked(const std::string &text)
{
    report told;
    for (size_t at = 0; at < text.size(); at += strlen(text.c_str() + at) + 1) {
        const std::string record = text.c_str() + at + 1;
        if (text[at] == 'w') {
            told.wrongs.push_back(record);
            continue;
        }
        const size_t space = record.find(' ');
        told.calls[record.substr(0, space)] = std::stoul(record.substr(space + 1));
    }
    return told;
}

std::string read_all(int fd)
{
    std::string text;
    char part[4096];
    for (ssize_t length; (length = read(fd, part, sizeof(part))) > 0;)
        text.append(part, length);
    return text;
}

// One run in a process of its own, so that a crash and every cache stay there.
report run(const scenario &tried, const fault &armed, const promise &promised)
{
    int answer[2];
    if (pipe2(answer, O_CLOEXEC) != 0)
        return {.calls = {}, .wrongs = {"no pipe"}};
    const bool failed_before = ::testing::Test::HasFailure();
    const pid_t child = new_process();
    if (child == 0) {
        close(answer[0]);
        alarm(patience);
        report told = Run(tried, armed).hold(promised);
        if (!failed_before && ::testing::Test::HasFailure())
            told.wrongs.push_back("an expectation in the body failed, see above");
        const std::string text = packed(told);
        const bool written = write(answer[1], text.data(), text.size()) == ssize_t(text.size());
        fflush(nullptr);
        _exit(written ? 0 : 98);
    }
    close(answer[1]);
    report told = unpacked(read_all(answer[0]));
    close(answer[0]);
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR)
        ;
    if (WIFSIGNALED(status))
        told.wrongs.push_back(std::string("ended by the signal ") + strsignal(WTERMSIG(status)));
    else if (WEXITSTATUS(status) != 0)
        told.wrongs.push_back("ended with " + std::to_string(WEXITSTATUS(status)));
    return told;
}

// All runs of a scenario --------------------------------------------------------------------------

class Sweep {
  public:
    Sweep(const scenario &tried, tally &result) : tried_(tried), result_(result) {}

    void all()
    {
        used_.assign(tried_.faults.size(), false);
        const report counted = run(tried_, {}, {tried_.outcome, tried_.lines});
        hold({}, counted);
        for (const auto &[call, count] : counted.calls) {
            for (unsigned nth = 1; nth <= count; nth++)
                site(call, nth);
        }
        for (const std::string &call : tried_.calls_of_child)
            site(call, 1);
        for (size_t i = 0; i < used_.size(); i++) {
            if (!used_[i])
                complain("the rule for " + tried_.faults[i].call + " fits no call");
        }
    }

  private:
    void complain(const std::string &text)
    {
        result_.failed++;
        ADD_FAILURE() << tried_.function << " " << tried_.way << ": " << text;
    }

    void hold(const fault &armed, const report &told)
    {
        std::string text;
        for (const std::string &wrong : told.wrongs)
            text += "\n    " + wrong;
        if (!text.empty())
            complain(name_of(armed) + ":" + text);
    }

    static bool about(const rule &r, const std::string &call, unsigned nth)
    {
        return r.call == call && (r.nth == 0 || r.nth == nth);
    }

    // The errors to try at a site: the call's, those that only a rule names, and a half transfer (0)
    // where a rule is about one.
    std::vector<int> errors_at(const std::string &call, unsigned nth) const
    {
        std::vector<int> found = errors_of(call);
        for (const rule &r : tried_.faults) {
            if (!about(r, call, nth))
                continue;
            found.insert(found.end(), r.errors.begin(), r.errors.end());
            if (r.shorter)
                found.push_back(0);
        }
        std::sort(found.begin(), found.end());
        found.erase(std::unique(found.begin(), found.end()), found.end());
        return found;
    }

    const rule *rule_for(const fault &f)
    {
        for (size_t i = 0; i < tried_.faults.size(); i++) {
            const rule &r = tried_.faults[i];
            const bool all = r.errors.empty();
            if (!about(r, f.call, f.nth) || r.shorter != (f.error == 0) ||
                !(all || std::count(r.errors.begin(), r.errors.end(), f.error) != 0))
                continue;
            used_[i] = true;
            return &r;
        }
        return nullptr;
    }

    void site(const std::string &call, unsigned nth)
    {
        const auto tries = errors_at(call, nth);
        result_.sites += !tries.empty();
        for (const int error : tries) {
            const fault armed = {.call = call, .nth = nth, .error = error};
            const rule *found = rule_for(armed);
            if (found == nullptr) {
                complain(name_of(armed) + ": the scenario does not say what is promised");
                continue;
            }
            result_.faults++;
            const bool harmless = found->effect == rule_effect::none;
            hold(armed, run(tried_, armed,
                            {.outcome = harmless ? tried_.outcome : found->outcome,
                             .lines = harmless ? tried_.lines : found->lines,
                             .after = found->after,
                             .anything = found->effect == rule_effect::unpromised}));
        }
    }

    const scenario &tried_;
    tally &result_;
    std::vector<bool> used_;
};

} // namespace

tally sweep_faults(const std::vector<scenario> &scenarios)
{
    const Faults redirect; // once, for all children
    tally result;
    for (const scenario &tried : scenarios)
        Sweep(tried, result).all();
    return result;
}

namespace {

class FunctionSweep : public ::testing::Test {
  public:
    explicit FunctionSweep(std::vector<scenario> scenarios) : scenarios_(std::move(scenarios)) {}

    void TestBody() override
    {
        const tally result = sweep_faults(scenarios_);
        const std::string failed = std::to_string(result.failed) + " FAILED";
        printf("[  FAULTS  ] %-42s %4u %6u  %s\n", scenarios_.front().function, result.sites,
               result.faults, result.failed == 0 ? "all passed" : failed.c_str());
    }

  private:
    std::vector<scenario> scenarios_;
};

rule rule_for_call(const std::string &call)
{
    const size_t colon = call.find(':');
    rule r;
    r.call = call.substr(0, colon);
    if (colon != std::string::npos)
        r.nth = std::stoul(call.substr(colon + 1));
    return r;
}

} // namespace

rule rule::with(std::vector<int> only) const
{
    rule r = *this;
    r.errors = std::move(only);
    return r;
}

rule rule::errno_kept() const
{
    rule r = *this;
    r.after = errno_after::kept;
    return r;
}

rule rule::errno_unpromised() const
{
    rule r = *this;
    r.after = errno_after::unpromised;
    return r;
}

rule fails(const std::string &call, const std::string &outcome,
           const std::vector<std::string> &lines)
{
    rule r = rule_for_call(call);
    r.outcome = outcome;
    r.lines = lines;
    return r;
}

rule gives(const std::string &call, const std::string &outcome,
           const std::vector<std::string> &lines)
{
    return fails(call, outcome, lines).errno_unpromised();
}

rule shortened(const std::string &call, const std::string &outcome,
               const std::vector<std::string> &lines)
{
    rule r = fails(call, outcome, lines).errno_unpromised();
    r.shorter = true;
    return r;
}

rule ignored(const std::string &call)
{
    rule r = rule_for_call(call).errno_unpromised();
    r.effect = rule_effect::none;
    return r;
}

rule survived(const std::string &call)
{
    rule r = rule_for_call(call).errno_unpromised();
    r.effect = rule_effect::unpromised;
    return r;
}

rule resumed(const std::string &call)
{
    rule r = ignored(call);
    r.shorter = true;
    return r;
}

Attempt::Attempt(const fault &armed, const char *also) : faults_(also), armed_(armed) {}

void Attempt::begin()
{
    calls_ = faults_.all_calls();
    if (armed_.nth != 0 && armed_.error == 0)
        faults_.shorten(armed_.call, armed_.nth);
    else if (armed_.nth != 0 && releases(armed_.call))
        faults_.fail_late(armed_.call, armed_.error, armed_.nth);
    else if (armed_.nth != 0)
        faults_.fail(armed_.call, armed_.error, armed_.nth);
    errno = errno_before;
}

void Attempt::end()
{
    error_ = errno;
    happened_ = faults_.happened();
    auto all = faults_.all_calls();
    for (const auto &[call, count] : calls_)
        all[call] -= count;
    calls_ = std::move(all);
    if (armed_.nth != 0)
        faults_.disarm(armed_.call);
}

unsigned Attempt::close_left()
{
    unsigned closed = 0;
    for (const int fd : open_descriptors()) {
        if (std::count(descriptors_.begin(), descriptors_.end(), fd) != 0)
            continue;
        close(fd);
        closed++;
    }
    return closed;
}

void Attempt::release(void *block)
{
    faults_.given_back(block);
    free(block);
}

std::string Attempt::taken(char *text)
{
    const std::string copy = shown(text);
    release(text);
    return copy;
}

scenario simply(const char *function, const std::function<std::string()> &call,
                const std::string &outcome, const std::vector<rule> &faults)
{
    return {.function = function,
            .body = [call](Attempt &a) { return a.faulted(call); },
            .outcome = outcome,
            .faults = faults};
}

bool register_fault_sweep(const char *suite, const std::vector<scenario> &scenarios)
{
    std::vector<std::string> functions;
    for (const scenario &s : scenarios) {
        if (std::count(functions.begin(), functions.end(), s.function) == 0)
            functions.emplace_back(s.function);
    }
    for (const std::string &function : functions) {
        std::vector<scenario> own;
        std::copy_if(scenarios.begin(), scenarios.end(), std::back_inserter(own),
                     [&](const scenario &s) { return function == s.function; });
        ::testing::RegisterTest(suite, function.c_str(), nullptr, nullptr, __FILE__, __LINE__,
                                [own]() -> FunctionSweep * { return new FunctionSweep(own); });
    }
    return true;
}

std::string shown(long value)
{
    return std::to_string(value);
}

std::string shown(const char *text)
{
    return text == nullptr ? "null" : "'" + std::string(text) + "'";
}

std::string shown(const std::string &text)
{
    return "'" + text + "'";
}

std::string shown(const void *pointer)
{
    return pointer == nullptr ? "null" : "set";
}

} // namespace vyt::test
