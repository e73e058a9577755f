// The watcher and the plain one side by side, each on a kernel that is made up alike: every call is
// made on both, and whatever can be seen of it must be the same.
#pragma once

#include "lh_inotify.h"

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "watch/inotify_oracle.hpp"
#include "watch/watcher.hpp"

namespace vyt::test {

inline const char *const pair_dirs[] = {"/w/a", "/w/a/", "/w/b", "/w//b", "/w/c", "/w/c/d"};
inline const char *const pair_names[] = {"f", "g", "h", "d"};

inline std::vector<int> pair_called;
inline int pair_ids[24];

inline void note_pair_call(void *id)
{
    pair_called.push_back(*static_cast<int *>(id));
}

class WatcherPair {
  public:
    WatcherPair(unsigned seed, Faults &faults) : ours_(seed), theirs_(seed)
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
        compare_calls();
    }

    void finish()
    {
        now = &ours_;
        lh_inotify_free(&watcher_);
        now = &theirs_;
        plain_->free();
        compare_calls();
        EXPECT_NO_LINES();
    }

    // Directory and file by their place in the lists above.
    void include(unsigned dir, unsigned name, uint32_t flags, bool silent)
    {
        const int id = static_cast<int>(dir * 4 + name);
        pair_ids[id] = id;
        both(
            [&] {
                return lh_inotify_include_file(watcher_, pair_dirs[dir], pair_names[name], flags,
                                               silent ? nullptr : note_pair_call, &pair_ids[id]);
            },
            [&](plain_watcher &plain) {
                return plain.include(pair_dirs[dir], pair_names[name], flags, silent ? -1 : id);
            });
    }

    void exclude(unsigned dir, unsigned name)
    {
        both([&] { return lh_inotify_exclude_file(watcher_, pair_dirs[dir], pair_names[name]); },
             [&](plain_watcher &plain) { return plain.exclude(pair_dirs[dir], pair_names[name]); });
    }

    void change(unsigned choice)
    {
        ours_.change_something(choice);
        theirs_.change_something(choice);
    }

    void restart(bool refuse)
    {
        ours_.refuses_descriptors = theirs_.refuses_descriptors = refuse;
        both([&] { return lh_inotify_restart(watcher_) == -1 ? -1 : 0; },
             [&](plain_watcher &plain) { return plain.restart(); });
    }

    // What one read will get.
    void feed(const std::string &buffer)
    {
        ours_.buffers.push_back(buffer);
        theirs_.buffers.push_back(buffer);
    }

    // How the reads end: with an errno, or 0 for a read of nothing.
    void process(int end_of_buffers, bool refuse_directories)
    {
        ours_.end_of_buffers = theirs_.end_of_buffers = end_of_buffers;
        ours_.refuses_directories = theirs_.refuses_directories = refuse_directories;
        both([&] { return lh_inotify_process(watcher_); },
             [&](plain_watcher &plain) { return plain.process(); });
    }

  private:
    template <class Ours, class Theirs>
    void both(Ours &&ours, Theirs &&theirs)
    {
        pair_called.clear();
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
        EXPECT_EQ(pair_called, plain.called);
        compare_calls();
    }

    void compare_calls()
    {
        EXPECT_EQ(ours_.calls, theirs_.calls);
        ours_.calls.clear();
        theirs_.calls.clear();
    }

    kernel ours_;
    kernel theirs_;
    lh_inotify *watcher_ = nullptr;
    std::optional<plain_watcher> plain_;
};

} // namespace vyt::test
