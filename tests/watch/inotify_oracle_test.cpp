// The watcher against the plain one, step by step, each on a kernel that is made up alike.
#include "lh_inotify.h"

#include <cerrno>
#include <optional>
#include <random>

#include "watch/inotify_oracle.hpp"
#include "watch/watcher.hpp"

using namespace vyt::test;

namespace {

const char *const spellings[] = {"/w/a", "/w/a/", "/w/b", "/w//b", "/w/c", "/w/c/d"};
const char *const names[] = {"f", "g", "h", "d"};

std::vector<int> called;
int ids[32];

void note_call(void *id)
{
    called.push_back(*static_cast<int *>(id));
}

class Pair {
  public:
    Pair(unsigned seed, Faults &faults) : script_(seed), ours_(seed), theirs_(seed)
    {
        faults.clear();
        faults.replace("stat", reinterpret_cast<void *>(kernel_stat));
        faults.replace("access", reinterpret_cast<void *>(kernel_access));
        faults.replace("opendir", reinterpret_cast<void *>(kernel_opendir));
        faults.replace("mkdir", reinterpret_cast<void *>(kernel_mkdir));
        faults.replace("inotify_init1", reinterpret_cast<void *>(kernel_init));
        faults.replace("inotify_add_watch", reinterpret_cast<void *>(kernel_add_watch));
        faults.replace("inotify_rm_watch", reinterpret_cast<void *>(kernel_rm_watch));
        faults.replace("usleep", reinterpret_cast<void *>(kernel_usleep));
        faults.replace("read", reinterpret_cast<void *>(kernel_read));
        ours_.real_descriptors = true;
        now = &ours_;
        watcher_ = lh_inotify_create();
        now = &theirs_;
        plain_.emplace();
    }

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
        EXPECT_EQ(ours_.calls, theirs_.calls);
        ours_.calls.clear();
        theirs_.calls.clear();
    }

    void finish()
    {
        now = &ours_;
        lh_inotify_free(&watcher_);
        now = &theirs_;
        plain_->free();
        EXPECT_EQ(ours_.calls, theirs_.calls);
        EXPECT_EQ(take_lines(), std::vector<std::string>{});
    }

    std::string what; // the step, for whoever reads a failure

  private:
    std::mt19937 script_;
    kernel ours_;
    kernel theirs_;
    lh_inotify *watcher_ = nullptr;
    std::optional<plain_watcher> plain_;

    unsigned below(unsigned limit) { return static_cast<unsigned>(script_() % limit); }

    template <class Ours, class Theirs>
    void both(Ours &&ours, Theirs &&theirs)
    {
        called.clear();
        now = &ours_;
        errno = 0;
        const int result = ours();
        const int error = result == -1 ? errno : 0;
        const auto lines = without_stray_reasons(take_lines());

        plain_watcher &plain = *plain_;
        plain.called.clear();
        plain.lines.clear();
        now = &theirs_;
        errno = 0;
        const int expected_result = theirs(plain);
        const int expected_error = expected_result == -1 ? errno : 0;

        EXPECT_EQ(result, expected_result);
        EXPECT_EQ(error, expected_error);
        EXPECT_EQ(lines, without_stray_reasons(plain.lines));
        EXPECT_EQ(called, plain.called);
    }

    void include()
    {
        const unsigned dir = below(6);
        const unsigned name = below(4);
        const uint32_t flags = below(3) == 0 ? 1 : 0;
        const bool silent = below(8) == 0;
        const int id = static_cast<int>(dir * 4 + name);
        ids[id] = id;
        what = std::string("include ") + spellings[dir] + " " + names[name];
        both(
            [&] {
                return lh_inotify_include_file(watcher_, spellings[dir], names[name], flags,
                                               silent ? nullptr : note_call, &ids[id]);
            },
            [&](plain_watcher &plain) {
                return plain.include(spellings[dir], names[name], flags, silent ? -1 : id);
            });
    }

    void exclude()
    {
        const unsigned dir = below(6);
        const unsigned name = below(4);
        what = std::string("exclude ") + spellings[dir] + " " + names[name];
        both([&] { return lh_inotify_exclude_file(watcher_, spellings[dir], names[name]); },
             [&](plain_watcher &plain) { return plain.exclude(spellings[dir], names[name]); });
    }

    void change()
    {
        const unsigned choice = below(10000);
        what = "change " + std::to_string(choice);
        ours_.change_something(choice);
        theirs_.change_something(choice);
    }

    void restart()
    {
        ours_.refuses_descriptors = theirs_.refuses_descriptors = below(6) == 0;
        what = "restart";
        both([&] { return lh_inotify_restart(watcher_) == -1 ? -1 : 0; },
             [&](plain_watcher &plain) { return plain.restart(); });
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
        const std::string name = below(2) == 0 ? "" : names[below(4)];
        return event(wd, mask, name);
    }

    void process()
    {
        const unsigned buffers = below(40) == 0 ? 98 + below(6) : below(3);
        for (unsigned i = 0; i < buffers; i++) {
            std::string buffer;
            for (unsigned events = 1 + below(6); events > 0; events--)
                buffer += some_event();
            ours_.buffers.push_back(buffer);
            theirs_.buffers.push_back(buffer);
        }
        const unsigned end = below(20);
        ours_.end_of_buffers = theirs_.end_of_buffers = end == 0 ? 0 : end == 1 ? EINTR : EAGAIN;
        ours_.refuses_directories = theirs_.refuses_directories = below(4) == 0;
        what = "process " + std::to_string(buffers);
        both([&] { return lh_inotify_process(watcher_); },
             [&](plain_watcher &plain) { return plain.process(); });
    }
};

} // namespace

class InotifyOracle : public LogTest, public ::testing::WithParamInterface<unsigned> {};

TEST_P(InotifyOracle, DoesWhatAPlainWatcherDoes)
{
    set_debug_flags(inotify_dbg);
    Faults faults;
    for (unsigned seed = GetParam() * 10; seed < GetParam() * 10 + 10; seed++) {
        Pair pair(seed, faults);
        for (int step = 0; step < 300 && !HasFailure(); step++) {
            pair.step();
            if (HasFailure())
                ADD_FAILURE() << "seed " << seed << ", step " << step << ": " << pair.what;
        }
        pair.finish();
        if (HasFailure())
            return;
    }
}

INSTANTIATE_TEST_SUITE_P(Seeds, InotifyOracle, ::testing::Range(0u, 8u));
