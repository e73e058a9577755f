// The watcher against a plain one that scans lists for everything, both on a made-up kernel that
// gives overlapping watch numbers, refuses, overflows and changes its files while it is asked.
#include "lh_dir.h"
#include "lh_inotify.h"

#include <cerrno>
#include <deque>
#include <dirent.h>
#include <optional>
#include <random>

#include "watch/watcher.hpp"

using namespace vyt::test;

namespace {

// The kernel ---------------------------------------------------------------------------------------

constexpr uint64_t refused = 13; // the inode that may not be watched

struct object {
    uint64_t inode = 0;
    bool is_directory = false;
};

struct kernel {
    explicit kernel(unsigned seed) : random(seed) {}

    std::map<std::string, object> objects = {
        {"/", {1, true}}, {"/w", {2, true}}, {"/w/a", {3, true}}, {"/w/b", {4, true}}};
    std::mt19937 random;
    std::deque<std::string> buffers;
    int end_of_buffers = EAGAIN; // errno, or 0 for a read of nothing
    bool refuses_descriptors = false;
    bool refuses_directories = false;
    bool real_descriptors = false;  // for who closes them
    std::vector<std::string> calls; // what it was asked to change

    unsigned below(unsigned limit) { return static_cast<unsigned>(random() % limit); }

    const object *find(const std::string &path) const
    {
        std::string plain;
        for (const char c : path) {
            if (c != '/' || plain.empty() || plain.back() != '/')
                plain += c;
        }
        if (plain.size() > 1 && plain.back() == '/')
            plain.pop_back();
        const auto found = objects.find(plain);
        return found == objects.end() ? nullptr : &found->second;
    }

    void put(const std::string &path, uint64_t inode, bool is_directory)
    {
        objects[path] = {inode, is_directory};
    }

    void remove(const std::string &path)
    {
        std::erase_if(objects, [&](const auto &entry) {
            return entry.first == path || entry.first.rfind(path + "/", 0) == 0;
        });
    }

    // Makes a file or directory, replaces it or removes it.
    void change_something(unsigned choice)
    {
        const std::string parent = std::string("/w/") + "abc"[choice % 3];
        const std::string path = parent + "/" + "fgh"[choice / 3 % 3];
        const uint64_t inodes[] = {10, 11, 12, 13, (1ull << 32) + 10, 1ull << 32};
        const uint64_t inode = inodes[choice / 9 % 6];
        switch (choice / 54 % 6) {
        case 0:
            remove(parent);
            break;
        case 1:
            put(parent, inode, true);
            break;
        case 2:
            remove(path);
            break;
        default:
            if (find(parent) != nullptr)
                put(path, inode, false);
        }
    }
};

kernel *now;

std::string hex(uint32_t number)
{
    std::ostringstream text;
    text << std::hex << number;
    return text.str();
}

int kernel_stat(const char *path, struct stat *st)
{
    const object *found = now->find(path);
    if (found == nullptr) {
        errno = ENOENT;
        return -1;
    }
    *st = {};
    st->st_ino = found->inode;
    st->st_mode = found->is_directory ? S_IFDIR | 0755 : S_IFREG | 0644;
    return 0;
}

int kernel_access(const char *path, int)
{
    struct stat st;
    return kernel_stat(path, &st);
}

DIR *kernel_opendir(const char *path)
{
    const object *found = now->find(path);
    if (found == nullptr || !found->is_directory) {
        errno = ENOENT;
        return nullptr;
    }
    return opendir("/");
}

int kernel_mkdir(const char *path, mode_t mode)
{
    now->calls.push_back(std::string("mkdir ") + path + " " + hex(mode));
    if (now->refuses_directories) {
        errno = EROFS;
        return -1;
    }
    now->put(path, 14, true);
    return 0;
}

int kernel_init(int flags)
{
    EXPECT_EQ(flags, IN_NONBLOCK);
    now->calls.push_back("init");
    if (now->refuses_descriptors) {
        errno = EMFILE;
        return -1;
    }
    return now->real_descriptors ? open("/dev/null", O_RDONLY) : 0;
}

int kernel_add_watch(int fd, const char *path, uint32_t mask)
{
    now->calls.push_back(std::string("add ") + path + " " + hex(mask));
    const unsigned choice = now->below(100);
    const int wd = static_cast<int>(now->below(5)); // unrelated objects share numbers
    const unsigned change = now->below(10000);
    const object *found = now->find(path);
    const uint64_t inode = found != nullptr ? found->inode : 0;
    if (choice % 7 == 0)
        now->change_something(change);
    if (fd == -1)
        errno = EBADF;
    else if (inode == 0 || choice < 5)
        errno = ENOENT;
    else if (inode == refused || choice < 15)
        errno = EACCES;
    else if (choice < 20)
        errno = ENOSPC;
    else
        return choice == 99 && change % 8 == 0 ? -2 : wd;
    return -1;
}

int kernel_rm_watch(int, int wd)
{
    now->calls.push_back("rm " + std::to_string(wd));
    if (wd % 2 == 0)
        return 0;
    errno = EINVAL;
    return -1;
}

int kernel_usleep(useconds_t length)
{
    now->calls.push_back("sleep " + std::to_string(length));
    return 0;
}

ssize_t kernel_read(int fd, void *data, size_t size)
{
    now->calls.push_back("read");
    if (fd == -1 || (now->buffers.empty() && now->end_of_buffers != 0)) {
        errno = fd == -1 ? EBADF : now->end_of_buffers;
        return -1;
    }
    if (now->buffers.empty())
        return 0;
    const std::string buffer = now->buffers.front();
    now->buffers.pop_front();
    EXPECT_LE(buffer.size(), size);
    memcpy(data, buffer.data(), buffer.size());
    return static_cast<ssize_t>(buffer.size());
}

// The plain watcher --------------------------------------------------------------------------------

constexpr uint32_t init = 0;
constexpr uint32_t watch_file = 1;
constexpr uint32_t watch_directory = 2;
constexpr uint32_t lost_directory = 3;
constexpr unsigned lost = 1;
constexpr unsigned modified = 2;
constexpr unsigned appeared = 4;
constexpr unsigned changed = 1;
constexpr unsigned removed = 2;

struct record {
    int watch_fd = -1;
    std::string file_name;
    std::string parent_dir;
    std::string full_path;
    uint32_t state = init;
    uint32_t inode = 0;
    unsigned events = 0;
    unsigned last_notify = removed;
    unsigned notify = 0;
    uint32_t flags = 0;
    int id = -1; // -1: nobody is called
};

class plain_watcher {
  public:
    std::vector<std::string> lines;
    std::vector<int> called;
    int fd = -1;

    plain_watcher() { fd = kernel_init(IN_NONBLOCK); }

    int include(const std::string &parent_dir, const std::string &name, uint32_t flags, int id)
    {
        if (lookup(parent_dir, name) != files_.size()) {
            errno = EEXIST;
            return -1;
        }
        record file;
        file.file_name = name;
        file.parent_dir = parent_dir;
        file.full_path = parent_dir + "/" + name;
        file.flags = flags;
        file.id = id;
        if (exists(file.full_path)) {
            file.events |= appeared;
            file.inode = inode(file.full_path);
            debug("<create_file:#> state INIT to WATCH_FILE (" + name + ")");
            file.state = watch_file;
        } else {
            file.events |= lost;
            file.inode = inode(file.parent_dir);
            debug("<create_file:#> state INIT to WATCH_DIRECTORY (" + name + ")");
            file.state = watch_directory;
        }
        files_.push_back(file);
        return 0;
    }

    int exclude(const std::string &parent_dir, const std::string &name)
    {
        const size_t place = lookup(parent_dir, name);
        if (place != files_.size()) {
            drop(files_[place]);
            files_.erase(files_.begin() + static_cast<long>(place));
        }
        return 0;
    }

    int restart()
    {
        for (record &file : files_) {
            drop(file);
            file.events = lost;
        }
        fd = kernel_init(IN_NONBLOCK);
        if (fd == -1)
            debug(std::string("<lh_inotify_restart> inotify_init1 failed: ") + strerror(errno));
        return fd;
    }

    int process()
    {
        check_inodes();
        if (read_events() != 0)
            return -1;
        for (record &file : files_)
            take_turn(file);
        return 0;
    }

    void free()
    {
        while (!files_.empty()) {
            drop(files_.front());
            files_.erase(files_.begin());
        }
    }

  private:
    std::vector<record> files_;

    static const char *name_of(uint32_t state)
    {
        const char *names[] = {"INIT", "WATCH_FILE", "WATCH_DIRECTORY", "LOST_DIRECTORY"};
        return names[state];
    }

    static uint32_t inode(const std::string &path)
    {
        struct stat st;
        return kernel_stat(path.c_str(), &st) == 0 ? static_cast<uint32_t>(st.st_ino) : 0;
    }

    static bool exists(const std::string &path) { return kernel_access(path.c_str(), F_OK) == 0; }

    void debug(const std::string &line) { lines.push_back("INOTIFY_DBG " + line); }

    size_t lookup(const std::string &parent_dir, const std::string &name) const
    {
        size_t place = 0;
        while (place < files_.size() &&
               (files_[place].file_name != name || files_[place].parent_dir != parent_dir))
            place++;
        return place;
    }

    void drop(record &file)
    {
        if (file.watch_fd < 0)
            return;
        int sharing = 0;
        for (const record &other : files_) {
            if (other.watch_fd == file.watch_fd)
                sharing++;
        }
        if (sharing < 2)
            kernel_rm_watch(fd, file.watch_fd);
        file.watch_fd = -1;
        file.inode = 0;
    }

    // Directories are another family's: it is asked on this watcher's kernel, and its lines count.
    bool create_directory(const std::string &path)
    {
        DIR *stream = kernel_opendir(path.c_str());
        if (stream != nullptr) {
            closedir(stream);
            return true;
        }
        lh_dir_lookup_opts opts = {};
        opts.flags = LH_DIR_DESCEND;
        const int result = lh_dir_create(path.c_str(), &opts, 0777);
        for (const std::string &line : take_lines())
            lines.push_back(line);
        return result == 0;
    }

    int arm(record &file)
    {
        if (file.watch_fd != -1) {
            lines.push_back("create_watch_fd: IS_NE check failed: file->watch_fd (" +
                            std::to_string(file.watch_fd) + " != -1) !!!");
            return -1;
        }
        std::string path = file.full_path;
        uint32_t mask = 0x8C02;
        int attempts = 3;
        if (file.state == watch_directory) {
            if ((file.flags & 1) != 0 && !create_directory(file.parent_dir)) {
                debug("<create_watch_fd> lh_dir_create failed");
                errno = EPERM;
                return -1;
            }
            path = file.parent_dir;
            mask = 0x20008180;
            attempts = 9;
        }
        for (int attempt = 1; attempt <= attempts; attempt++) {
            errno = 0;
            file.inode = inode(path);
            if (file.inode != 0) {
                file.watch_fd = kernel_add_watch(fd, path.c_str(), mask);
                if (file.watch_fd != -1)
                    return 0;
            }
            if (attempt < attempts)
                kernel_usleep(250000);
        }
        if (errno == EACCES) {
            struct stat st;
            errno = 0;
            if (kernel_stat(path.c_str(), &st) == 0) {
                std::ostringstream mode;
                mode << std::oct << st.st_mode;
                debug("<create_watch_fd> got EACCES, '" + path + "' mode is " + mode.str());
            } else {
                debug(std::string("<create_watch_fd> lh_file_get_mode failed ") + strerror(errno));
            }
            errno = EACCES;
        }
        return -1;
    }

    void check_inodes()
    {
        for (record &file : files_) {
            if (file.state != watch_file && file.state != watch_directory)
                continue;
            if (inode(file.state == watch_file ? file.full_path : file.parent_dir) == file.inode)
                continue;
            debug("<check_inode> inode has changed (" + file.file_name + ")");
            drop(file);
            file.events = lost;
        }
    }

    void mark(record &file, uint32_t mask)
    {
        file.events = 0;
        if ((mask & (IN_MODIFY | IN_MOVED_TO | IN_CREATE)) != 0)
            file.events = (mask & (IN_MOVED_TO | IN_CREATE)) != 0 ? appeared | modified : modified;
        else if ((mask & (IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED)) != 0)
            file.events = lost;
        else
            debug("<read_inotify> unexpected events in mask 0x" + hex(mask));
    }

    int read_events()
    {
        for (int reads = 0; reads < 100; reads++) {
            char buffer[4112];
            const ssize_t length = kernel_read(fd, buffer, sizeof(buffer));
            if (length == 0 || (length == -1 && errno == EAGAIN))
                return 0;
            if (length == -1) {
                debug(std::string("<read_inotify> read failed: ") + strerror(errno));
                errno = EIO;
                return -1;
            }
            for (ssize_t at = 0; at < length;) {
                inotify_event header;
                memcpy(&header, buffer + at, sizeof(header));
                const std::string name = header.len != 0 ? buffer + at + sizeof(header) : "";
                for (record &file : files_) {
                    if (file.watch_fd != header.wd || (header.len != 0 && file.file_name != name))
                        continue;
                    mark(file, header.mask);
                    if (header.len != 0)
                        break;
                }
                at += static_cast<ssize_t>(sizeof(header) + header.len);
            }
        }
        return 0;
    }

    bool arm_again(record &file)
    {
        drop(file);
        if (arm(file) == 0)
            return true;
        debug(std::string("<inotify_state_loop:#> create_watch_fd failed: ") + strerror(errno));
        return false;
    }

    // What a step decided: the next state, or the end of the turn.
    static constexpr int end = -1;
    static constexpr int stop = -2;

    int step_in_directory(record &file, uint32_t from)
    {
        if (from == init)
            return stop;
        if ((file.events & lost) != 0) {
            if (!arm_again(file))
                return lost_directory;
            file.events &= ~lost;
            if (!exists(file.full_path))
                return end;
            file.events |= appeared;
            return watch_file;
        }
        if ((file.events & (appeared | modified)) != 0) {
            file.events |= appeared;
            return watch_file;
        }
        return stop;
    }

    int step_in_file(record &file, uint32_t from)
    {
        if (from == watch_file && (file.events & lost) != 0) {
            file.notify = removed;
            return watch_directory;
        }
        if ((from == watch_file || from == watch_directory) && (file.events & appeared) != 0) {
            file.events &= ~(from == watch_file ? appeared | modified : appeared);
            if (arm_again(file)) {
                file.events &= ~lost;
                file.notify = changed;
                return end;
            }
            file.events |= lost;
            file.notify = removed;
            return watch_directory;
        }
        if (from == watch_file && (file.events & modified) != 0) {
            file.events &= ~modified;
            file.notify = changed;
            return end;
        }
        return stop;
    }

    static int step_in_lost(const record &file, uint32_t from)
    {
        if (from == watch_file || from == watch_directory)
            return end;
        if (from == lost_directory && (file.events & lost) != 0)
            return watch_directory;
        return stop;
    }

    void take_steps(record &file)
    {
        uint32_t from = file.state;
        for (int steps = 0; steps < 100; steps++) {
            int next = stop;
            if (file.state == watch_directory)
                next = step_in_directory(file, from);
            else if (file.state == watch_file)
                next = step_in_file(file, from);
            else if (file.state == lost_directory)
                next = step_in_lost(file, from);
            if (next == end)
                return;
            if (next == stop)
                break;
            from = file.state;
            file.state = static_cast<uint32_t>(next);
        }
        debug("<inotify_state_loop> can't do state transition");
    }

    void take_turn(record &file)
    {
        const uint32_t start = file.state;
        if (file.events != 0)
            take_steps(file);
        if (file.state != start)
            debug(std::string("<inotify_state_loop> state ") + name_of(start) + " to " +
                  name_of(file.state) + " (" + file.file_name + ")");
        if (file.id != -1 &&
            (file.notify == changed || (file.notify == removed && file.last_notify != removed)))
            called.push_back(file.id);
        file.last_notify = file.notify;
        file.notify = 0;
    }
};

// Both, step by step -------------------------------------------------------------------------------

const char *const spellings[] = {"/w/a", "/w/a/", "/w/b", "/w//b", "/w/c", "/w/c/d"};
const char *const names[] = {"f", "g", "h", "d"};

std::vector<int> called;
int ids[32];

void note_call(void *id)
{
    called.push_back(*static_cast<int *>(id));
}

// The text of an errno that no call has set is nobody's promise.
std::vector<std::string> without_stray_reasons(std::vector<std::string> lines)
{
    for (size_t i = 1; i < lines.size(); i++) {
        if (lines[i - 1].rfind("create_watch_fd: IS_NE", 0) == 0)
            lines[i] = lines[i].substr(0, lines[i].rfind(':'));
    }
    return lines;
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
