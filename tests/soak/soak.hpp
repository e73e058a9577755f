// What the soak's scenarios share: rounds of storm and calm in a process of their own, and the
// figures that must stay flat from the end of the warm-up on.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <random>
#include <regex>
#include <string>
#include <vector>

namespace vyt::soak {

using Clock = std::chrono::steady_clock;
using Random = std::mt19937;

// What a scenario has done, and what it holds; in memory that it shares with the parent.
struct Figures {
    uint64_t rounds;
    uint64_t operations; // of writers, handlers and children: the scenario says which
    uint64_t passes;     // calls into the library
    uint64_t restarts;   // times that the watcher had to start over to see the last state
    uint64_t overflows;  // of the kernel's event queue
    // In use at the calm end of a round: the most during the warm-up, and the most after it.
    uint64_t warm_heap, heap;
    uint64_t warm_resident, resident;
    uint64_t warm_descriptors, descriptors;
    bool done;
    char failure[512];
};

// One scenario. It is made in its own process; what it finds wrong it throws as Broken.
class Scenario {
  public:
    virtual ~Scenario() = default;
    // A storm, then calm, in which the final state must be seen as it is.
    virtual void round(Random &random, Figures &figures) = 0;
    // Log lines that the storm may cause, as one expression; any other line is a failure.
    virtual std::string allowed_lines() const = 0;
};

struct Broken {
    std::string what;
};

[[noreturn]] void broken(const char *format, ...) __attribute__((format(printf, 1, 2)));

struct Kind {
    const char *name;
    const char *operations; // what is counted as operations
    std::unique_ptr<Scenario> (*make)();
};

std::unique_ptr<Scenario> make_tracker();
std::unique_ptr<Scenario> make_watcher();
std::unique_ptr<Scenario> make_loop();
std::unique_ptr<Scenario> make_shell();

// A number below the limit.
inline uint32_t below(Random &random, uint32_t limit)
{
    return std::uniform_int_distribution<uint32_t>(0, limit - 1)(random);
}

// Processes that do one thing as fast as they can while the storm is on, and stand still in the
// calm. They end with the process that made them.
class Storm {
  public:
    // `act` is called again and again, in each process with a random sequence of its own.
    Storm(unsigned processes, const std::function<void(Random &)> &act);
    ~Storm();
    Storm(const Storm &) = delete;
    Storm &operator=(const Storm &) = delete;

    void blow();
    // Comes back when every process stands still. Answers how often they acted since blow().
    uint64_t calm();

  private:
    struct Shared;
    Shared *shared_;
    std::vector<int> pids_;
    uint64_t acts_before_ = 0;
};

} // namespace vyt::soak
