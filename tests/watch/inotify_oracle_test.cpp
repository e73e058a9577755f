// The watcher against the plain one, step by step, in random orders.
#include <random>

#include "watch/inotify_pair.hpp"

using namespace vyt::test;

namespace {

class RandomSteps {
  public:
    RandomSteps(unsigned seed, Faults &faults) : random_(seed), pair_(seed, faults) {}

    void step()
    {
        const unsigned choice = below(100);
        if (choice < 22)
            include();
        else if (choice < 30)
            exclude();
        else if (choice < 55)
            change();
        else if (choice < 58)
            restart();
        else
            process();
    }

    void finish() { pair_.finish(); }

    std::string what; // the step, for whoever reads a failure

  private:
    std::mt19937 random_;
    WatcherPair pair_;

    unsigned below(unsigned limit) { return static_cast<unsigned>(random_() % limit); }

    void include()
    {
        const unsigned dir = below(6);
        const unsigned name = below(4);
        const uint32_t flags = below(3) == 0 ? 1 : 0;
        what = std::string("include ") + pair_dirs[dir] + " " + pair_names[name];
        pair_.include(dir, name, flags, below(8) == 0);
    }

    void exclude()
    {
        const unsigned dir = below(6);
        const unsigned name = below(4);
        what = std::string("exclude ") + pair_dirs[dir] + " " + pair_names[name];
        pair_.exclude(dir, name);
    }

    void change()
    {
        const unsigned choice = below(10000);
        what = "change " + std::to_string(choice);
        pair_.change(choice);
    }

    void restart()
    {
        what = "restart";
        pair_.restart(below(6) == 0);
    }

    std::string some_event()
    {
        const uint32_t masks[] = {IN_MODIFY,  IN_CREATE,     IN_MOVED_TO,   IN_DELETE_SELF,
                                  IN_IGNORED, IN_MOVE_SELF,  IN_Q_OVERFLOW, IN_UNMOUNT,
                                  IN_ISDIR,   IN_CLOSE_WRITE};
        uint32_t mask = masks[below(10)];
        if (below(4) == 0)
            mask |= masks[below(10)];
        int wd = static_cast<int>(below(6));
        if (below(8) == 0)
            wd = -1 - static_cast<int>(below(2));
        const std::string name = below(2) == 0 ? "" : pair_names[below(4)];
        return event(wd, mask, name);
    }

    void process()
    {
        const unsigned buffers = below(40) == 0 ? 98 + below(6) : below(3);
        for (unsigned i = 0; i < buffers; i++) {
            std::string buffer;
            for (unsigned events = 1 + below(6); events > 0; events--)
                buffer += some_event();
            pair_.feed(buffer);
        }
        const unsigned end = below(20);
        what = "process " + std::to_string(buffers);
        pair_.process(end == 0 ? 0 : end == 1 ? EINTR : EAGAIN, below(4) == 0);
    }
};

} // namespace

class InotifyOracle : public LogTest, public ::testing::WithParamInterface<unsigned> {};

TEST_P(InotifyOracle, DoesWhatAPlainWatcherDoes)
{
    set_debug_flags(inotify_dbg);
    Faults faults;
    for (unsigned seed = GetParam() * 10; seed < GetParam() * 10 + 10; seed++) {
        RandomSteps steps(seed, faults);
        for (int step = 0; step < 300 && !HasFailure(); step++) {
            steps.step();
            if (HasFailure())
                ADD_FAILURE() << "seed " << seed << ", step " << step << ": " << steps.what;
        }
        steps.finish();
        if (HasFailure())
            return;
    }
}

INSTANTIATE_TEST_SUITE_P(Seeds, InotifyOracle, ::testing::Range(0u, 8u));
