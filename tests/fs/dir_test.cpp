#include "lh_dir.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

#include "support/faults.hpp"
#include "support/log_capture.hpp"
#include "support/process.hpp"

using namespace vyt::test;

static_assert(LH_DIR_DESCEND == 0x01);
static_assert(LH_DIR_KEEP_GOING == 0x02);
static_assert(LH_DIR_REMOVE == 0x04);
static_assert(LH_DIR_CALLBACK == 0x08);

namespace {

struct Visit {
    std::string path;
    int type;
    unsigned depth;

    bool operator==(const Visit &) const = default;
};

std::ostream &operator<<(std::ostream &out, const Visit &v)
{
    return out << v.path << " type " << v.type << " depth " << v.depth;
}

// The cookie of a walk: what its callback saw, and where it is to fail.
struct Visitor {
    lh_dir_lookup_opts opts = {};
    std::vector<Visit> visits = {};
    std::string fail_at = {};
};

int visit(const char *path, unsigned char type, void *cookie)
{
    auto *visitor = static_cast<Visitor *>(cookie);
    visitor->visits.push_back({path, type, visitor->opts.depth});
    if (visitor->fail_at != path)
        return 0;
    errno = EUCLEAN;
    return 7;
}

// A directory with a file "a", a subdirectory "b" that holds a file "c", and a link "l" to "b".
class DirLookup : public LogTest {
  protected:
    DirLookup() { fill(); }

    void fill()
    {
        mkdir(start.c_str(), 0755);
        mkdir(b.c_str(), 0755);
        write_file(a, "a");
        write_file(c, "c");
        symlink("b", l.c_str());
    }

    Visitor visitor(int flags)
    {
        Visitor v;
        v.opts.flags = static_cast<uint8_t>(flags);
        v.opts.callback = visit;
        return v;
    }

    int walk(Visitor &v) { return lh_dir_lookup(start.c_str(), &v.opts, &v); }

    std::set<std::string> left() const
    {
        std::set<std::string> found;
        for (const std::string &path : {start, a, b, c, l}) {
            struct stat st;
            if (lstat(path.c_str(), &st) == 0)
                found.insert(path);
        }
        return found;
    }

    TempDir dir;
    const std::string start = dir / "start";
    const std::string a = start + "/a";
    const std::string b = start + "/b";
    const std::string c = b + "/c";
    const std::string l = start + "/l";
    const std::string absent = dir / "absent";
    const std::vector<int> before = open_descriptors();
};

std::string line(const std::string &message)
{
    return "lh_dir_lookup: " + message;
}

} // namespace

TEST_F(DirLookup, EveryCombinationOfFlags)
{
    for (int flags = 0; flags < 16; flags++) {
        SCOPED_TRACE(flags);
        const bool descend = (flags & LH_DIR_DESCEND) != 0;
        const bool keep_going = (flags & LH_DIR_KEEP_GOING) != 0;
        const bool remove = (flags & LH_DIR_REMOVE) != 0;
        fill();
        Visitor v = visitor(flags);

        // Without descending the subdirectory stays, so that the start cannot be removed.
        const bool fails = remove && !descend && !keep_going;
        EXPECT_EQ(walk(v), fails ? -1 : 0);
        if (fails)
            EXPECT_LINES(line("cannot execute remove action with directory (null)"));
        else
            EXPECT_NO_LINES();

        std::vector<Visit> visits;
        if ((flags & LH_DIR_CALLBACK) != 0) {
            visits.push_back({a, DT_REG, 0});
            if (descend) {
                visits.push_back({c, DT_REG, 1});
                visits.push_back({b, DT_DIR, 0});
            }
            visits.push_back({l, DT_LNK, 0});
            visits.push_back({start, DT_DIR, 0});
        }
        EXPECT_EQ(v.visits, visits);

        if (!remove)
            EXPECT_EQ(left(), (std::set{start, a, b, c, l}));
        else if (descend)
            EXPECT_EQ(left(), std::set<std::string>{});
        else
            EXPECT_EQ(left(), (std::set{start, b, c}));
        EXPECT_EQ(v.opts.depth, 0);
        EXPECT_EQ(open_descriptors(), before);
    }
}

TEST_F(DirLookup, UndefinedFlagsAreIgnored)
{
    Visitor v = visitor(0xf0 | LH_DIR_CALLBACK);
    EXPECT_EQ(walk(v), 0);
    EXPECT_EQ(v.visits.size(), 3u);
    EXPECT_EQ(left().size(), 5u);
}

TEST_F(DirLookup, EntriesComeInTheOrderOfTheirNames)
{
    const std::string folder = dir / "sorted";
    ASSERT_EQ(mkdir(folder.c_str(), 0755), 0);
    for (const char *name : {"b", "a", "c", ".hidden"})
        write_file(folder + "/" + name, "");
    Visitor v = visitor(LH_DIR_CALLBACK);
    EXPECT_EQ(lh_dir_lookup(folder.c_str(), &v.opts, &v), 0);
    EXPECT_EQ(v.visits, (std::vector<Visit>{{folder + "/.hidden", DT_REG, 0},
                                            {folder + "/a", DT_REG, 0},
                                            {folder + "/b", DT_REG, 0},
                                            {folder + "/c", DT_REG, 0},
                                            {folder, DT_DIR, 0}}));
}

TEST_F(DirLookup, PathsAreTheGivenOneASlashAndTheName)
{
    const std::string given = b + "/";
    Visitor v = visitor(LH_DIR_CALLBACK);
    EXPECT_EQ(lh_dir_lookup(given.c_str(), &v.opts, &v), 0);
    EXPECT_EQ(v.visits, (std::vector<Visit>{{given + "/c", DT_REG, 0}, {given, DT_DIR, 0}}));
}

TEST_F(DirLookup, ALinkToADirectoryIsWalkedAsAStartOnly)
{
    Visitor v = visitor(LH_DIR_CALLBACK | LH_DIR_DESCEND);
    EXPECT_EQ(lh_dir_lookup(l.c_str(), &v.opts, &v), 0);
    EXPECT_EQ(v.visits, (std::vector<Visit>{{l + "/c", DT_REG, 0}, {l, DT_DIR, 0}}));
}

TEST_F(DirLookup, NoCallbackIsFineWithItsFlag)
{
    Visitor v = visitor(LH_DIR_CALLBACK | LH_DIR_DESCEND | LH_DIR_REMOVE);
    v.opts.callback = nullptr;
    EXPECT_EQ(walk(v), 0);
    EXPECT_EQ(left(), std::set<std::string>{});
}

TEST_F(DirLookup, DepthIsThatOfTheWalkedDirectory)
{
    const std::string deep = c + "deep";
    ASSERT_EQ(mkdir(deep.c_str(), 0755), 0);
    write_file(deep + "/x", "");
    Visitor v = visitor(LH_DIR_CALLBACK | LH_DIR_DESCEND);
    EXPECT_EQ(walk(v), 0);
    EXPECT_EQ(v.visits, (std::vector<Visit>{{a, DT_REG, 0},
                                            {c, DT_REG, 1},
                                            {deep + "/x", DT_REG, 2},
                                            {deep, DT_DIR, 1},
                                            {b, DT_DIR, 0},
                                            {l, DT_LNK, 0},
                                            {start, DT_DIR, 0}}));
    EXPECT_EQ(v.opts.depth, 0);
}

TEST_F(DirLookup, ADirectoryWithoutATypeIsHandledAsAFile)
{
    Faults faults;
    faults.replace("scandir",
                   reinterpret_cast<void *>(+[](const char *path, dirent ***list,
                                                int (*filter)(const dirent *),
                                                int (*compare)(const dirent **, const dirent **)) {
                       const int count = scandir(path, list, filter, compare);
                       for (int i = 0; i < count; i++)
                           (*list)[i]->d_type = DT_UNKNOWN;
                       return count;
                   }));
    Visitor v = visitor(LH_DIR_CALLBACK | LH_DIR_DESCEND | LH_DIR_REMOVE);
    EXPECT_EQ(walk(v), -1);
    EXPECT_EQ(errno, EISDIR);
    EXPECT_LINES(line("cannot execute remove action on file " + b));
    EXPECT_EQ(v.visits, (std::vector<Visit>{{a, DT_UNKNOWN, 0}, {b, DT_UNKNOWN, 0}}));
}

TEST_F(DirLookup, NeedsItsArguments)
{
    lh_dir_lookup_opts opts = {};
    EXPECT_EQ(lh_dir_lookup(nullptr, nullptr, nullptr), -1);
    EXPECT_LINES(line("PTR_IS_NULL: path"));
    EXPECT_EQ(lh_dir_lookup(start.c_str(), nullptr, nullptr), -1);
    EXPECT_LINES(line("PTR_IS_NULL: opts"));
    EXPECT_EQ(lh_dir_lookup(nullptr, &opts, nullptr), -1);
    EXPECT_LINES(line("PTR_IS_NULL: path"));
}

// A start that is not there ----------------------------------------------------------------------

TEST_F(DirLookup, AMissingStartIsAnErrorUnlessItIsToBeRemovedAnyway)
{
    for (int flags = 0; flags < 16; flags++) {
        SCOPED_TRACE(flags);
        const bool fine = (flags & LH_DIR_KEEP_GOING) != 0 && (flags & LH_DIR_REMOVE) != 0;
        Visitor v = visitor(flags);
        errno = 0;
        EXPECT_EQ(lh_dir_lookup(absent.c_str(), &v.opts, &v), fine ? 0 : -1);
        EXPECT_EQ(errno, ENOENT);
        if (fine)
            EXPECT_NO_LINES();
        else
            EXPECT_LINES(line("directory '" + absent + "' not exist"));
        EXPECT_TRUE(v.visits.empty());
    }
}

TEST_F(DirLookup, AFileIsNoStart)
{
    Visitor v = visitor(LH_DIR_CALLBACK);
    EXPECT_EQ(lh_dir_lookup(a.c_str(), &v.opts, &v), -1);
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_LINES(line("directory '" + a + "' not exist"));
}

TEST_F(DirLookup, ARaisedDepthLeavesOutTheQuestionWhetherItExists)
{
    Visitor v = visitor(LH_DIR_CALLBACK | LH_DIR_KEEP_GOING | LH_DIR_REMOVE);
    v.opts.depth = 1;
    EXPECT_EQ(lh_dir_lookup(absent.c_str(), &v.opts, &v), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_LINES(line("cannot read directory '" + absent + "': No such file or directory"));

    Visitor raised = visitor(LH_DIR_CALLBACK);
    raised.opts.depth = 3;
    EXPECT_EQ(walk(raised), 0);
    EXPECT_EQ(raised.visits,
              (std::vector<Visit>{{a, DT_REG, 3}, {l, DT_LNK, 3}, {start, DT_DIR, 3}}));
    EXPECT_EQ(raised.opts.depth, 3);
}

// Failures ---------------------------------------------------------------------------------------

TEST_F(DirLookup, AFailingCallbackEndsTheWalkUnlessItKeepsGoing)
{
    struct {
        std::string fail_at, message;
        size_t visits;
    } const cases[] = {
        {a, "cannot execute requried action on file " + a, 1},
        {c, "cannot execute requried action on file " + c, 2},
        {b, "cannot execute requried action with directory " + b, 3},
        {l, "cannot execute requried action on file " + l, 4},
        {start, "cannot execute requried action with directory (null)", 5},
    };
    for (const auto &failing : cases) {
        SCOPED_TRACE(failing.fail_at);
        Visitor v = visitor(LH_DIR_CALLBACK | LH_DIR_DESCEND);
        v.fail_at = failing.fail_at;
        EXPECT_EQ(walk(v), -1);
        EXPECT_EQ(errno, EUCLEAN);
        EXPECT_EQ(v.visits.size(), failing.visits);
        if (failing.fail_at == c) {
            EXPECT_LINES(line(failing.message), line("failed to read '" + b + "' directory"));
            EXPECT_EQ(v.opts.depth, 1) << "stays raised";
        } else {
            EXPECT_LINES(line(failing.message));
            EXPECT_EQ(v.opts.depth, 0);
        }

        Visitor patient = visitor(LH_DIR_CALLBACK | LH_DIR_DESCEND | LH_DIR_KEEP_GOING);
        patient.fail_at = failing.fail_at;
        EXPECT_EQ(walk(patient), 0);
        EXPECT_EQ(patient.visits.size(), 5u);
        EXPECT_NO_LINES();
    }
}

TEST_F(DirLookup, AFailingCallbackPreventsTheRemoval)
{
    Visitor v = visitor(LH_DIR_CALLBACK | LH_DIR_REMOVE);
    v.fail_at = a;
    EXPECT_EQ(walk(v), -1);
    EXPECT_LINES(line("cannot execute requried action on file " + a));
    EXPECT_EQ(left().count(a), 1u);

    Visitor patient = visitor(LH_DIR_CALLBACK | LH_DIR_DESCEND | LH_DIR_REMOVE | LH_DIR_KEEP_GOING);
    patient.fail_at = a;
    EXPECT_EQ(walk(patient), 0);
    EXPECT_EQ(left(), std::set<std::string>{}) << "but not when the walk keeps going";
}

TEST_F(DirLookup, AFailingRemovalEndsTheWalkUnlessItKeepsGoing)
{
    struct {
        const char *call;
        unsigned nth;
        std::vector<std::string> lines;
        size_t left;
    } const cases[] = {
        {"unlink", 1, {"cannot execute remove action on file " + a}, 5},
        {"unlink",
         2,
         {"cannot execute remove action on file " + c, "failed to read '" + b + "' directory"},
         4},
        {"rmdir", 1, {"cannot execute remove action with directory " + b}, 3},
        {"unlink", 3, {"cannot execute remove action on file " + l}, 2},
        {"rmdir", 2, {"cannot execute remove action with directory (null)"}, 1},
    };
    for (const auto &failing : cases) {
        SCOPED_TRACE(failing.lines.front());
        fill();
        Faults faults;
        faults.fail(failing.call, EBUSY, failing.nth);
        Visitor v = visitor(LH_DIR_DESCEND | LH_DIR_REMOVE);
        EXPECT_EQ(walk(v), -1);
        EXPECT_EQ(errno, EBUSY);
        std::vector<std::string> lines;
        for (const std::string &message : failing.lines)
            lines.push_back(line(message));
        EXPECT_EQ(take_lines(), lines);
        EXPECT_EQ(left().size(), failing.left);
        EXPECT_EQ(open_descriptors(), before);

        fill();
        faults.fail(failing.call, EBUSY, failing.nth);
        Visitor patient = visitor(LH_DIR_DESCEND | LH_DIR_REMOVE | LH_DIR_KEEP_GOING);
        EXPECT_EQ(walk(patient), 0);
        EXPECT_TRUE(faults.happened());
        EXPECT_NO_LINES();
    }
}

TEST_F(DirLookup, RemovingWithoutDescendingLeavesTheSubdirectory)
{
    Visitor v = visitor(LH_DIR_REMOVE | LH_DIR_CALLBACK);
    EXPECT_EQ(walk(v), -1);
    EXPECT_EQ(errno, ENOTEMPTY);
    EXPECT_LINES(line("cannot execute remove action with directory (null)"));
    EXPECT_EQ(left(), (std::set{start, b, c}));
}

TEST_F(DirLookup, AnUnreadableSubdirectoryEndsEvenAWalkThatKeepsGoing)
{
    const std::string deep = b + "/d";
    ASSERT_EQ(mkdir(deep.c_str(), 0755), 0);
    Faults faults;
    faults.fail("scandir", EACCES, 3);
    Visitor v = visitor(LH_DIR_DESCEND | LH_DIR_KEEP_GOING | LH_DIR_CALLBACK);
    EXPECT_EQ(walk(v), -1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_LINES(line("cannot read directory '" + deep + "': Permission denied"),
                 line("failed to read '" + deep + "' directory"),
                 line("failed to read '" + b + "' directory"));
    EXPECT_EQ(v.opts.depth, 2) << "stays raised";
    EXPECT_EQ(v.visits, (std::vector<Visit>{{a, DT_REG, 0}, {c, DT_REG, 1}}));
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(DirLookup, AnUnreadableStartIsReported)
{
    Faults faults;
    faults.fail("scandir", EACCES);
    Visitor v = visitor(LH_DIR_CALLBACK);
    EXPECT_EQ(walk(v), -1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_LINES(line("cannot read directory '" + start + "': Permission denied"));
    EXPECT_TRUE(v.visits.empty());
}

TEST_F(DirLookup, EveryAllocationMayFail)
{
    const std::string no_memory = "': Cannot allocate memory";
    const std::string not_walked = line("failed to read '" + b + "' directory");
    const std::vector<std::string> cases[] = {
        {line("directory '" + start + "' not exist")}, // opendir of the existence test
        {line("cannot read directory '" + start + no_memory)},
        {line("print file name error '" + a + "'")},
        {line("print file name error '" + b + "'")},
        {line("cannot read directory '" + b + no_memory), not_walked},
        {line("print file name error '" + c + "'"), not_walked},
        {line("print file name error '" + l + "'")},
        {},
    };
    unsigned nth = 0;
    for (const auto &lines : cases) {
        nth++;
        SCOPED_TRACE(nth);
        Faults faults;
        faults.fail_allocation(nth);
        Visitor v = visitor(LH_DIR_DESCEND | LH_DIR_CALLBACK);
        EXPECT_EQ(walk(v), lines.empty() ? 0 : -1);
        EXPECT_EQ(faults.happened(), !lines.empty());
        if (!lines.empty()) {
            EXPECT_EQ(errno, ENOMEM);
        }
        EXPECT_EQ(take_lines(), lines);
        EXPECT_EQ(open_descriptors(), before);
    }
}

TEST_F(DirLookup, AWideDirectoryIsWalkedWhole)
{
    const std::string wide = dir / "wide";
    ASSERT_EQ(mkdir(wide.c_str(), 0755), 0);
    std::vector<Visit> visits;
    for (int i = 1000; i < 2000; i++) {
        visits.push_back({wide + "/" + std::to_string(i), DT_REG, 0});
        write_file(visits.back().path, "");
    }
    visits.push_back({wide, DT_DIR, 0});
    Visitor v = visitor(LH_DIR_CALLBACK | LH_DIR_REMOVE);
    EXPECT_EQ(lh_dir_lookup(wide.c_str(), &v.opts, &v), 0);
    EXPECT_EQ(v.visits, visits);
    EXPECT_EQ(lh_dir_is_exist(wide.c_str()), 0);
}

TEST_F(DirLookup, ADeepTreeNeedsNoMoreDescriptors)
{
    std::string deep = start;
    for (int level = 0; level < 200; level++) {
        deep += "/d";
        ASSERT_EQ(mkdir(deep.c_str(), 0755), 0);
    }
    size_t most = 0;
    lh_dir_lookup_opts opts = {.flags = LH_DIR_DESCEND | LH_DIR_CALLBACK | LH_DIR_REMOVE,
                               .depth = 0,
                               .callback = [](const char *, unsigned char, void *cookie) {
                                   auto &highest = *static_cast<size_t *>(cookie);
                                   highest = std::max(highest, open_descriptors().size());
                                   return 0;
                               }};
    EXPECT_EQ(lh_dir_lookup(start.c_str(), &opts, &most), 0);
    EXPECT_EQ(most, before.size());
    EXPECT_EQ(lh_dir_is_exist(start.c_str()), 0);
}

// Existence --------------------------------------------------------------------------------------

TEST_F(DirLookup, ExistenceIsThatOfADirectoryThatCanBeOpened)
{
    EXPECT_EQ(lh_dir_is_exist(start.c_str()), 1);
    EXPECT_EQ(lh_dir_is_exist(l.c_str()), 1);
    EXPECT_EQ(open_descriptors(), before);
    errno = 0;
    EXPECT_EQ(lh_dir_is_exist(absent.c_str()), 0);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(lh_dir_is_exist(a.c_str()), 0);
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_NO_LINES();
    EXPECT_EQ(lh_dir_is_exist(nullptr), 0);
    EXPECT_LINES("lh_dir_is_exist: PTR_IS_NULL: path");
}
