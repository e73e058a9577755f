// Faults, swept: a function runs once and its fallible calls into the C library are counted; then it
// runs again for each of them and for each errno that the call can really give there, with that one
// call failing. Each run has a process of its own.
//
// How to write a scenario. A room's test holds one list; each entry names an exported function, says
// how it is called, what it gives when nothing fails, and what each failing call makes of that:
//
//   const std::vector<scenario> scenarios = {
//       {.function = "lh_read_pid_file",
//        .body = [](Attempt &a) {
//            write_file(a.path("pid"), "1234");                    // never faulted: the test's own
//            return shown(a.faulted([&] { return lh_read_pid_file(a.path("pid").c_str()); }));
//        },
//        .outcome = "1234",
//        .faults = {fails("fopen", "-1", {"lh_read_pid_file: failed to open pidfile '{dir}/pid'"}),
//                   ignored("fclose")}},
//   };
//   const bool swept = register_fault_sweep("FaultsOfCore", scenarios);
//
// - The body runs from a clean directory; only what stands inside a.faulted() is counted and fails,
//   once in a body. What comes before prepares, what comes after looks and tidies up. It answers the
//   outcome as a text: shown() of the result, and of whatever else the contract promises (what is in
//   the file now, a second call on the same object ...).
// - Lines are in the short form of log_capture.hpp: all that the library logs during the body, in
//   their order. "{error}" stands for the text of the errno that the fault gave, "{code}" for its
//   number, "{dir}" for the directory, "{pid}" for the process; source lines are "<function:#>".
// - A rule is for all calls of its name, or with "read:2" for the second one; the first rule that fits
//   counts, so the special ones stand first. A site without a rule fails the test, and so does a rule
//   without a site. A failing call's errno is expected afterwards unless the rule says otherwise.
// - Outcome and lines come from the function's contract, never from what the code was seen to do.
// - Descriptors must be as before the body when it ends, and the library must hold nothing: what it
//   handed out is taken with taken(), release() or declared with a.faults().given_back().
// - After the faulty run the body runs again in the same process without a fault, and succeeds.
// - A function without a fallible call has a scenario, too, without rules: "0 sites".
// - What varies from run to run cannot be swept: let faults().before() hold a call back until the
//   world is ready for it, so that each run makes the same calls.
// - The body may enter a World: each run has a process of its own, and its second body a new one.
// - A function may have several scenarios, one for each of its ways.
#pragma once

#include <cerrno>
#include <functional>
#include <string>
#include <type_traits>
#include <vector>

#include "support/faults.hpp"
#include "support/process.hpp"

namespace vyt::test {

// What errno is after a failing call.
enum class errno_after { of_the_call, kept, unpromised };

// What a fault does to the function.
enum class rule_effect { as_given, none, unpromised };

struct rule {
    std::string call;
    unsigned nth = 0; // 0: each
    rule_effect effect = rule_effect::as_given;
    bool shorter = false;
    std::string outcome = {};
    std::vector<std::string> lines = {};
    errno_after after = errno_after::of_the_call;
    std::vector<int> errors = {}; // empty: all that the call can give

    // Only for these errors, also where the call cannot give them everywhere.
    rule with(std::vector<int> only) const;
    rule errno_kept() const;
    rule errno_unpromised() const;
};

// The failing call gives this outcome and these lines.
rule fails(const std::string &call, const std::string &outcome,
           const std::vector<std::string> &lines = {});
// The same, with an outcome that tells errno where it is promised.
rule gives(const std::string &call, const std::string &outcome,
           const std::vector<std::string> &lines = {});
// The transfer goes through half way, which gives this outcome and these lines.
rule shortened(const std::string &call, const std::string &outcome,
               const std::vector<std::string> &lines = {});
// The failing call changes nothing: outcome and lines are those without a fault.
rule ignored(const std::string &call);
// Nothing is promised, as no such failure is known; but nothing is lost, and the next call works.
rule survived(const std::string &call);
// The shorter transfer changes nothing.
rule resumed(const std::string &call);

struct fault {
    std::string call = {};
    unsigned nth = 0; // 0: no fault
    int error = 0;    // 0: a transfer that is half as long
};

// One run of a body.
class Attempt {
  public:
    Attempt(const fault &armed, const char *also);

    std::string path(const std::string &name) const { return directory_ / name; }
    const std::string &directory() const { return directory_.path(); }

    // Calls the library with the fault armed and gives its result.
    template <class Call>
    auto faulted(Call call)
    {
        begin();
        if constexpr (std::is_void_v<decltype(call())>) {
            call();
            end();
        } else {
            auto result = call();
            end();
            return result;
        }
    }

    // Closes what is open since the run's begin, and says how much that was.
    unsigned close_left();
    // Frees what the library handed out.
    void release(void *block);
    // The text that the library handed out, quoted, or "null"; it is freed.
    std::string taken(char *text);
    // The fixture, for a body that needs more than the one fault.
    Faults &faults() { return faults_; }

    // What faulted() saw.
    int error() const { return error_; }
    bool happened() const { return happened_; }
    const std::map<std::string, unsigned> &calls() const { return calls_; }

  private:
    void begin();
    void end();

    TempDir directory_;
    Faults faults_;
    fault armed_;
    std::map<std::string, unsigned> calls_;
    std::vector<int> descriptors_ = open_descriptors();
    int error_ = 0;
    bool happened_ = false;
};

struct scenario {
    const char *function;
    const char *way = ""; // which of the function's ways it is, where it has several
    std::function<std::string(Attempt &)> body;
    std::string outcome = {};
    std::vector<std::string> lines = {};
    std::vector<rule> faults = {};
    // The process has not asked for its own name yet.
    bool cold = false;
    // A second library whose calls are swept, too, by a part of its file's name.
    const char *also = nullptr;
    // Calls that only a forked child makes, where they cannot be counted: "execl" ...
    std::vector<std::string> calls_of_child = {};
};

// A function that needs no preparation: the outcome is what the call answers as a text.
scenario simply(const char *function, const std::function<std::string()> &call,
                const std::string &outcome, const std::vector<rule> &faults = {});

// Registers one test per function, named after it, in this suite. At its end each prints a line
// "[  FAULTS  ] function sites faults result", which ./dev faults gathers.
bool register_fault_sweep(const char *suite, const std::vector<scenario> &scenarios);

// The same at once, for one test; each complaint fails it.
struct tally {
    unsigned sites = 0;
    unsigned faults = 0;
    unsigned failed = 0;
};
tally sweep_faults(const std::vector<scenario> &scenarios);

// What a fallible call can give; nothing for a call that only its arguments can let fail.
const std::vector<int> &errors_of(const std::string &call);
// All calls that can give anything.
std::vector<std::string> fallible_calls();

std::string shown(long value);
std::string shown(const char *text);
std::string shown(const std::string &text);
// A pointer that is more than a text: "null" or "set".
std::string shown(const void *pointer);

} // namespace vyt::test
