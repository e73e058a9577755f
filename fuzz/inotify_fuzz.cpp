// The events of an inotify descriptor. The input is a row of steps on a made-up kernel: following
// and leaving files, changes of the files, passes that read events - well-formed ones, or any bytes.
#include "lh_inotify.h"

#include "fuzz/support/fuzz.hpp"
#include "watch/inotify_oracle.hpp"
#include "watch/watcher.hpp"

using namespace vyt::fuzz;
using namespace vyt::test;

namespace {

const char *const spellings[] = {"/w/a", "/w/a/", "/w/b", "/w//b", "/w/c", "/w/c/d"};
const char *const file_names[] = {"f", "g", "h", "d"};

constexpr int steps_max = 100; // more of them only take longer

std::vector<int> called;
int ids[24];

void note_call(void *id)
{
    called.push_back(*static_cast<int *>(id));
}

// The watcher and the plain one, each on a kernel that is made up alike.
class Pair {
  public:
    explicit Pair(Input input) : input_(input), ours_(input_.byte()), theirs_(ours_)
    {
        ours_.real_descriptors = true;
        now = &ours_;
        watcher_ = lh_inotify_create();
        now = &theirs_;
        plain_.emplace();
    }

    void run()
    {
        for (int steps = 0; steps < steps_max && !input_.is_empty(); steps++)
            step();
        now = &ours_;
        lh_inotify_free(&watcher_);
        now = &theirs_;
        plain_->free();
        EXPECT_EQ(ours_.calls, theirs_.calls);
    }

  private:
    void step()
    {
        const unsigned choice = input_.below(8);
        if (choice == 0)
            include();
        else if (choice == 1)
            exclude();
        else if (choice == 2)
            change();
        else if (choice == 3)
            restart();
        else if (choice == 4)
            feed(input_.some());
        else if (choice == 5)
            feed(some_events());
        else
            process();
        EXPECT_EQ(ours_.calls, theirs_.calls);
        ours_.calls.clear();
        theirs_.calls.clear();
    }

    template <class Ours, class Theirs>
    void both(Ours &&ours, Theirs &&theirs)
    {
        called.clear();
        now = &ours_;
        errno = 0;
        const int result = ours();
        const int error = result == -1 ? errno : 0;
        const auto lines = without_stray_reasons(take_lines());

        plain_->called.clear();
        plain_->lines.clear();
        now = &theirs_;
        errno = 0;
        const int expected_result = theirs(*plain_);
        const int expected_error = expected_result == -1 ? errno : 0;

        EXPECT_EQ(result, expected_result);
        EXPECT_EQ(error, expected_error);
        EXPECT_EQ(lines, without_stray_reasons(plain_->lines));
        EXPECT_EQ(called, plain_->called);
    }

    void include()
    {
        const unsigned dir = input_.below(6);
        const unsigned name = input_.below(4);
        const uint32_t flags = input_.below(2);
        const int id = static_cast<int>(dir * 4 + name);
        ids[id] = id;
        both(
            [&] {
                return lh_inotify_include_file(watcher_, spellings[dir], file_names[name], flags,
                                               note_call, &ids[id]);
            },
            [&](plain_watcher &plain) {
                return plain.include(spellings[dir], file_names[name], flags, id);
            });
    }

    void exclude()
    {
        const unsigned dir = input_.below(6);
        const unsigned name = input_.below(4);
        both([&] { return lh_inotify_exclude_file(watcher_, spellings[dir], file_names[name]); },
             [&](plain_watcher &plain) { return plain.exclude(spellings[dir], file_names[name]); });
    }

    void change()
    {
        const unsigned choice = input_.number(2);
        ours_.change_something(choice);
        theirs_.change_something(choice);
    }

    void restart()
    {
        ours_.refuses_descriptors = theirs_.refuses_descriptors = input_.below(6) == 0;
        both([&] { return lh_inotify_restart(watcher_) == -1 ? -1 : 0; },
             [&](plain_watcher &plain) { return plain.restart(); });
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
            bytes += event(wd, mask, name == 4 ? "" : file_names[name]);
        }
        return bytes;
    }

    // What a read will get; a read of nothing would end the pass.
    void feed(const std::string &bytes)
    {
        if (bytes.empty())
            return;
        ours_.buffers.push_back(bytes);
        theirs_.buffers.push_back(bytes);
    }

    void process()
    {
        const unsigned end = input_.below(20);
        ours_.end_of_buffers = theirs_.end_of_buffers = end == 10 ? 0 : end == 11 ? EINTR : EAGAIN;
        ours_.refuses_directories = theirs_.refuses_directories = end == 12;
        both([&] { return lh_inotify_process(watcher_); },
             [&](plain_watcher &plain) { return plain.process(); });
    }

    Input input_;
    kernel ours_;
    kernel theirs_;
    lh_inotify *watcher_ = nullptr;
    std::optional<plain_watcher> plain_;
};

} // namespace

void vyt::fuzz::prepare()
{
    static Faults faults;
    faults.replace("stat", reinterpret_cast<void *>(kernel_stat));
    faults.replace("access", reinterpret_cast<void *>(kernel_access));
    faults.replace("opendir", reinterpret_cast<void *>(kernel_opendir));
    faults.replace("mkdir", reinterpret_cast<void *>(kernel_mkdir));
    faults.replace("inotify_init1", reinterpret_cast<void *>(kernel_init));
    faults.replace("inotify_add_watch", reinterpret_cast<void *>(kernel_add_watch));
    faults.replace("inotify_rm_watch", reinterpret_cast<void *>(kernel_rm_watch));
    faults.replace("usleep", reinterpret_cast<void *>(kernel_usleep));
    faults.replace("read", reinterpret_cast<void *>(kernel_read));
    set_debug_flags(inotify_dbg);
}

void vyt::fuzz::run(Input input)
{
    Pair(input).run();
}
