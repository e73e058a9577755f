// soak [SECONDS [SEED]]: the scenarios side by side, each in a process of its own, for so long.
// Exit status 0 when every final state was right and nothing grew after the warm-up.
#include "soak/soak.hpp"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <malloc.h>
#include <new>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/log_capture.hpp"
#include "support/process.hpp"

namespace vyt::soak {

void broken(const char *format, ...)
{
    char text[sizeof(Figures::failure)];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    throw Broken{text};
}

namespace {

constexpr std::array kinds = {
    Kind{"tracker", "writes", make_tracker},
    Kind{"watcher", "disturbances", make_watcher},
    Kind{"loop", "handlers", make_loop},
    Kind{"shell", "children", make_shell},
};

// A block that was split may be some bytes larger; a leak of one block a round is far above this.
constexpr uint64_t heap_slack = 1024;
constexpr uint64_t resident_slack = 1 << 20;

uint64_t resident_bytes()
{
    uint64_t total = 0;
    uint64_t resident = 0;
    std::ifstream("/proc/self/statm") >> total >> resident;
    return resident * uint64_t(sysconf(_SC_PAGESIZE));
}

void measure(Figures &figures, bool warm)
{
    const auto keep_most = [](uint64_t &most, uint64_t now) { most = std::max(most, now); };
    keep_most(warm ? figures.warm_heap : figures.heap, mallinfo2().uordblks);
    keep_most(warm ? figures.warm_resident : figures.resident, resident_bytes());
    keep_most(warm ? figures.warm_descriptors : figures.descriptors,
              test::open_descriptors().size());
}

void check_flat(const Figures &figures)
{
    if (figures.heap > figures.warm_heap + heap_slack)
        broken("the heap grew from %lu to %lu bytes", figures.warm_heap, figures.heap);
    if (figures.resident > figures.warm_resident + resident_slack)
        broken("resident memory grew from %lu to %lu bytes", figures.warm_resident,
               figures.resident);
    if (figures.descriptors > figures.warm_descriptors)
        broken("descriptors grew from %lu to %lu", figures.warm_descriptors, figures.descriptors);
}

void check_lines(const std::regex &allowed)
{
    for (const std::string &line : test::take_lines())
        if (!std::regex_match(line, allowed))
            broken("it logged: %s", line.c_str());
}

// A quarter of the time is the warm-up.
void run(const Kind &kind, Figures &figures, std::chrono::seconds time, uint32_t seed)
try {
    const auto start = Clock::now();
    Random random(seed);
    const auto scenario = kind.make();
    const std::regex allowed(scenario->allowed_lines());
    while (Clock::now() < start + time) {
        scenario->round(random, figures);
        check_lines(allowed);
        figures.rounds++;
        measure(figures, Clock::now() < start + time / 4);
        if (figures.warm_heap == 0)
            broken("the warm-up is over before its first round: run it for longer");
        check_flat(figures);
    }
    figures.done = true;
} catch (const std::exception &e) {
    snprintf(figures.failure, sizeof(figures.failure), "%s", e.what());
} catch (const Broken &b) {
    snprintf(figures.failure, sizeof(figures.failure), "%s", b.what.c_str());
}

pid_t start(const Kind &kind, Figures &figures, std::chrono::seconds time, uint32_t seed)
{
    const pid_t pid = test::new_process();
    if (pid != 0)
        return pid;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    run(kind, figures, time, seed);
    _exit(figures.done ? 0 : 1);
}

void show_progress(const Figures *figures, std::chrono::seconds elapsed)
{
    printf("%4ld s ", long(elapsed.count()));
    for (size_t i = 0; i < kinds.size(); i++)
        printf("  %s: %lu rounds", kinds[i].name, figures[i].rounds);
    printf("\n");
    fflush(stdout);
}

// Waits for all of them, with a line every ten seconds; true when each ended well.
bool wait_for_all(std::array<pid_t, kinds.size()> pids, Figures *figures)
{
    const auto start = Clock::now();
    auto next_line = start + std::chrono::seconds(10);
    size_t running = pids.size();
    bool well = true;
    while (running > 0) {
        for (size_t i = 0; i < pids.size(); i++) {
            int status = 0;
            if (pids[i] <= 0 || waitpid(pids[i], &status, WNOHANG) != pids[i])
                continue;
            pids[i] = 0;
            running--;
            well = well && status == 0;
            if (WIFSIGNALED(status))
                snprintf(figures[i].failure, sizeof(figures[i].failure), "ended by signal %d",
                         WTERMSIG(status));
        }
        if (Clock::now() >= next_line) {
            show_progress(figures,
                          std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - start));
            next_line += std::chrono::seconds(10);
        }
        usleep(20000);
    }
    return well;
}

void show(const Kind &kind, const Figures &f)
{
    printf("%-8s %7lu rounds %9lu %-12s %8lu passes %3lu overflows %2lu restarts   heap %lu -> "
           "%lu B   resident %lu -> %lu kB   descriptors %lu -> %lu   %s\n",
           kind.name, f.rounds, f.operations, kind.operations, f.passes, f.overflows, f.restarts,
           f.warm_heap, f.heap, f.warm_resident >> 10, f.resident >> 10, f.warm_descriptors,
           f.descriptors, f.done ? "right" : f.failure);
}

// The allocator counts what its cache of free blocks holds as in use; without one the figures are
// exact. It reads the setting when a process starts.
void leave_cache_of_free_blocks(char **argv)
{
    constexpr const char *name = "GLIBC_TUNABLES";
    if (getenv(name) != nullptr)
        return;
    setenv(name, "glibc.malloc.tcache_count=0", 1);
    execv("/proc/self/exe", argv);
    perror("soak: cannot start anew");
    exit(2);
}

} // namespace
} // namespace vyt::soak

int main(int argc, char **argv)
{
    using namespace vyt::soak;
    leave_cache_of_free_blocks(argv);
    const std::chrono::seconds time(argc > 1 ? atoi(argv[1]) : 60);
    const auto seed = uint32_t(argc > 2 ? atoi(argv[2]) : getpid());
    void *memory = mmap(nullptr, sizeof(Figures) * kinds.size(), PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (time.count() < 1 || memory == MAP_FAILED) {
        fprintf(stderr, "usage: soak [SECONDS [SEED]]\n");
        return 2;
    }
    auto *figures = new (memory) Figures[kinds.size()]{};
    printf("soak: %ld s, seed %u\n", long(time.count()), seed);
    fflush(stdout);
    std::array<pid_t, kinds.size()> pids = {};
    for (size_t i = 0; i < kinds.size(); i++)
        pids[i] = start(kinds[i], figures[i], time, seed);
    const bool well = wait_for_all(pids, figures);
    printf("The most in use at the calm ends of the rounds: in the warm-up -> after it.\n");
    for (size_t i = 0; i < kinds.size(); i++)
        show(kinds[i], figures[i]);
    printf(well ? "soak: all right\n" : "soak: FAILED, repeat it with the seed %u\n", seed);
    return well ? 0 : 1;
}
