// The events of an inotify descriptor. The input is a row of steps on a made-up kernel: following
// and leaving files, changes of the files, passes that read events - well-formed ones, or any bytes.
#include "fuzz/support/fuzz.hpp"
#include "watch/inotify_pair.hpp"

using namespace vyt::fuzz;
using namespace vyt::test;

namespace {

constexpr int steps_max = 100; // more of them only take longer

Faults *faults; // made once: the library's links stay redirected

class Script {
  public:
    explicit Script(Input input) : input_(input), pair_(input_.byte(), *faults) {}

    void run()
    {
        for (int steps = 0; steps < steps_max && !input_.is_empty(); steps++)
            step();
        pair_.finish();
    }

  private:
    void step()
    {
        switch (input_.below(8)) {
        case 0: {
            const unsigned dir = input_.below(6);
            const unsigned name = input_.below(4);
            return pair_.include(dir, name, input_.below(2), false);
        }
        case 1: {
            const unsigned dir = input_.below(6);
            return pair_.exclude(dir, input_.below(4));
        }
        case 2:
            return pair_.change(input_.number(2));
        case 3:
            return pair_.restart(input_.below(6) == 0);
        case 4:
            return feed(input_.some());
        case 5:
            return feed(some_events());
        default: {
            const unsigned end = input_.below(20);
            return pair_.process(end == 10 ? 0 : end == 11 ? EINTR : EAGAIN, end == 12);
        }
        }
    }

    // A read of nothing would end the pass.
    void feed(const std::string &bytes)
    {
        if (!bytes.empty())
            pair_.feed(bytes);
    }

    std::string some_events()
    {
        constexpr uint32_t masks[] = {IN_MODIFY,  IN_CREATE,    IN_MOVED_TO,   IN_DELETE_SELF,
                                      IN_IGNORED, IN_MOVE_SELF, IN_Q_OVERFLOW, IN_ISDIR};
        std::string bytes;
        for (unsigned count = 1 + input_.below(6); count > 0; count--) {
            const uint32_t mask = masks[input_.below(8)] | masks[input_.below(8)];
            const int wd = static_cast<int>(input_.below(8)) - 2;
            const unsigned name = input_.below(5);
            bytes += event(wd, mask, name == 4 ? "" : pair_names[name]);
        }
        return bytes;
    }

    Input input_;
    WatcherPair pair_;
};

} // namespace

void vyt::fuzz::prepare()
{
    static Faults redirected;
    faults = &redirected;
    set_debug_flags(inotify_dbg);
}

void vyt::fuzz::run(Input input)
{
    Script(input).run();
}
