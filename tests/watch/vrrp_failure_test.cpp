// Readings that fail, and files that change under the reader's hands.
#include "watch/vrrp_fixture.hpp"

#include <algorithm>
#include <fstream>

using namespace vyt::test;

namespace {

constexpr answer good = {0, 0};
constexpr answer input_output = {-1, EIO};
constexpr answer empty = {-1, ENOENT};
const std::string to_unknown = "VRRP_DBG VRRP group 1 change status Master to Unknown";

// The kernel merges neighbouring mappings into one, so they are measured too.
struct address_space {
    long mappings;
    long pages;
};

address_space measure_address_space()
{
    std::ifstream maps("/proc/self/maps");
    address_space space = {};
    space.mappings = std::count(std::istreambuf_iterator<char>(maps), {}, '\n');
    std::ifstream("/proc/self/statm") >> space.pages;
    return space;
}

bool is_regular(int fd)
{
    struct stat st;
    return fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
}

// Stand-ins for read that let the watcher's descriptor alone.
int reads_of_the_file;
std::function<void()> after_first_read;

ssize_t read_interrupted(int fd, void *data, size_t size)
{
    if (is_regular(fd) && reads_of_the_file++ < 3) {
        errno = EINTR;
        return -1;
    }
    return read(fd, data, size);
}

ssize_t read_a_hundred_bytes(int fd, void *data, size_t size)
{
    if (!is_regular(fd))
        return read(fd, data, size);
    const ssize_t got = read(fd, data, std::min(size, size_t{100}));
    if (reads_of_the_file++ == 0 && after_first_read)
        after_first_read();
    return got;
}

template <int nth>
ssize_t read_failing(int fd, void *data, size_t size)
{
    if (!is_regular(fd))
        return read(fd, data, size);
    if (++reads_of_the_file == nth) {
        errno = EIO;
        return -1;
    }
    return read(fd, data, std::min(size, record_size));
}

template <class Function>
void replace_read(Faults &faults, Function *function)
{
    reads_of_the_file = 0;
    faults.replace("read", reinterpret_cast<void *>(function));
}

} // namespace

// The tracker has read two masters, and the file has been written in place since: the next pass
// reads it again without any other call on the file.
class VrrpFailure : public TrackerTest {
  protected:
    VrrpFailure()
    {
        start_with(two_masters, {1});
        EXPECT_EQ(lh_vrrp_info_update(), 0);
        touch();
        descriptors = open_descriptors();
        set_debug_flags(vrrp_dbg);
    }

    void touch() { write_in_place(two_masters); }

    answer update() { return answer_of(77, lh_vrrp_info_update); }

    void expect_all_reset()
    {
        EXPECT_EQ(lh_vrrp_group_status_get(1), LH_VRRP_STATUS_UNKNOWN);
        EXPECT_EQ(lh_vrrp_group_members_num_get(1), 0);
        EXPECT_QUIETLY(-1, lh_vrrp_instance_status_get("", 1));
        EXPECT_EQ(open_descriptors(), descriptors);
    }

    void expect_works_again(Faults &faults)
    {
        faults.clear();
        set_debug_flags(0);
        EXPECT_EQ(answer_of(77, [] { return update_with(two_masters); }), good);
        EXPECT_EQ(members_of(1), (names{"vrrp.2", "vrrp.1"}));
        EXPECT_EQ(lh_vrrp_group_status_get(1), LH_VRRP_STATUS_MASTER);
    }

    static inline const std::string two_masters =
        record(1, daemon_master, 1) + record(2, daemon_master, 1);
    std::vector<int> descriptors;
};

// Failing calls -----------------------------------------------------------------------------------

TEST_F(VrrpFailure, AFailingOpenIsAnInputError)
{
    Faults faults;
    faults.fail("open", EACCES);
    EXPECT_EQ(update(), input_output);
    EXPECT_TRUE(faults.happened());
    EXPECT_LINES("VRRP_DBG <read_vrrp_info:#> open failed: Permission denied", to_unknown);
    expect_all_reset();
    expect_works_again(faults);
}

TEST_F(VrrpFailure, AFailingMmapIsAnInputError)
{
    Faults faults;
    faults.fail("mmap", ENOMEM);
    EXPECT_EQ(update(), input_output);
    EXPECT_TRUE(faults.happened());
    EXPECT_LINES("VRRP_DBG <read_vrrp_info:#> mmap failed: Cannot allocate memory", to_unknown);
    EXPECT_EQ(faults.calls("munmap"), 0u);
    expect_all_reset();
    expect_works_again(faults);
}

TEST_F(VrrpFailure, FailuresAreSilentWithoutTheFlag)
{
    set_debug_flags(0);
    Faults faults;
    faults.fail("open", EACCES);
    EXPECT_EQ(update(), input_output);
    faults.fail("mmap", ENOMEM);
    EXPECT_EQ(update(), input_output);
    EXPECT_NO_LINES();
}

// A size that cannot be told is that of an empty file.
TEST_F(VrrpFailure, AFailingStatIsLoggedAndTakenForAnEmptyFile)
{
    Faults faults;
    faults.fail("stat", EACCES, 2); // the first one is the watcher's look at the inode
    EXPECT_EQ(update(), empty);
    EXPECT_TRUE(faults.happened());
    EXPECT_LINES("lh_file_size_get: stat '/var/cache/vrrp_data' failed", to_unknown);
    expect_all_reset();
    expect_works_again(faults);
}

TEST_F(VrrpFailure, AFailingWatcherResetsNothing)
{
    Faults faults;
    faults.fail("read", ENODEV);
    EXPECT_EQ(update(), input_output);
    EXPECT_LINES("VRRP_DBG <lh_vrrp_info_update> lh_inotify_process failed: Input/output error");
    EXPECT_EQ(lh_vrrp_group_status_get(1), LH_VRRP_STATUS_MASTER);
    EXPECT_EQ(lh_vrrp_group_members_num_get(1), 2);
    EXPECT_EQ(faults.calls("open"), 0u);
    expect_works_again(faults);
}

TEST_F(VrrpFailure, AFailingReadIsAnInputErrorLikeAFailingMmap)
{
    Faults faults;
    replace_read(faults, read_failing<1>);
    EXPECT_EQ(update(), input_output);
    EXPECT_LINES("VRRP_DBG <read_vrrp_info:#> mmap failed: Input/output error", to_unknown);
    EXPECT_EQ(faults.calls("munmap"), 1u);
    expect_all_reset();
    expect_works_again(faults);
}

TEST_F(VrrpFailure, AReadFailingHalfwayTakesNoRecord)
{
    Faults faults;
    replace_read(faults, read_failing<2>);
    EXPECT_EQ(update(), input_output);
    EXPECT_LINES("VRRP_DBG <read_vrrp_info:#> mmap failed: Input/output error", to_unknown);
    EXPECT_EQ(faults.calls("munmap"), 1u);
    expect_all_reset();
    expect_works_again(faults);
}

TEST_F(VrrpFailure, InterruptedReadsAreTriedAgain)
{
    Faults faults;
    replace_read(faults, read_interrupted);
    EXPECT_EQ(update(), good);
    EXPECT_GT(reads_of_the_file, 3);
    EXPECT_NO_LINES();
    EXPECT_EQ(lh_vrrp_group_members_num_get(1), 2);
}

TEST_F(VrrpFailure, ShortReadsAreContinued)
{
    Faults faults;
    replace_read(faults, read_a_hundred_bytes);
    EXPECT_EQ(update(), good);
    EXPECT_GE(reads_of_the_file, 12);
    EXPECT_NO_LINES();
    EXPECT_EQ(members_of(1), (names{"vrrp.2", "vrrp.1"}));
}

// Allocations of a pass that makes a namespace and two instances: each fails once.
TEST_F(VrrpFailure, RecordsWithoutMemoryAreSkipped)
{
    const std::string two_in_red =
        record(3, daemon_master, 1, "red") + record(4, daemon_backup, 1, "red");
    const std::string no_vrf =
        "VRRP_DBG <create_vrf_instance> calloc failed Cannot allocate memory";
    const std::string no_vrf_here =
        "VRRP_DBG <read_vrrp_info> create_vrf_instance failed: Cannot allocate memory";
    const std::string no_instance =
        "VRRP_DBG <create_vrrp_instance> malloc failed Cannot allocate memory";
    const std::string no_instance_here =
        "VRRP_DBG <read_vrrp_info> create_vrrp_instance failed: Cannot allocate memory";
    struct {
        const char *call;
        unsigned nth;
        std::vector<std::string> lines;
        names members;
    } const cases[] = {
        {"calloc", 1, {no_vrf, no_vrf_here}, {"vrrp.4"}},
        {"malloc", 1, {no_instance, no_instance_here}, {"vrrp.4"}},
        {"malloc", 2, {no_instance, no_instance_here}, {"vrrp.3"}},
    };
    Faults faults;
    for (const auto &[call, nth, lines, members] : cases) {
        SCOPED_TRACE(std::string(call) + " " + std::to_string(nth));
        set_debug_flags(0);
        EXPECT_EQ(update_with(two_masters), 0);
        rename_over(two_in_red);
        set_debug_flags(vrrp_dbg);
        faults.clear();
        faults.fail(call, ENOMEM, nth);
        EXPECT_EQ(update(), good);
        EXPECT_TRUE(faults.happened());
        auto written = take_lines();
        written.resize(lines.size()); // the change of status comes behind
        EXPECT_EQ(written, lines);
        EXPECT_EQ(members_of(1), members);
        EXPECT_EQ(open_descriptors(), descriptors);
    }
    expect_works_again(faults);
}

TEST_F(VrrpFailure, WithoutAnyMemoryEveryRecordIsSkippedAndNothingIsLeft)
{
    set_debug_flags(0);
    rename_over(record(3, daemon_master, 1, "red") + record(4, daemon_backup, 1, "red"));
    Faults faults;
    faults.fail_always("calloc", ENOMEM);
    EXPECT_EQ(update(), good);
    EXPECT_EQ(lh_vrrp_group_members_num_get(1), 0);
    faults.clear();
    faults.fail_always("malloc", ENOMEM);
    EXPECT_EQ(update(), good);
    EXPECT_EQ(lh_vrrp_group_members_num_get(1), 0);
    EXPECT_EQ(lh_vrrp_group_status_get(1), LH_VRRP_STATUS_UNKNOWN);
    EXPECT_QUIETLY(-1, lh_vrrp_instance_status_get("red", 3)) << "an empty namespace is forgotten";
    expect_works_again(faults);
}

// Files that change while they are read -----------------------------------------------------------

// What could be read decides.
TEST_F(VrrpFailure, AFileThatShrinksBeforeItIsReadIsTakenAsItIsThen)
{
    struct {
        off_t length;
        answer result;
        std::vector<std::string> lines;
        int members;
    } const cases[] = {
        {576, good, {}, 1},
        {0, empty, {to_unknown}, 0},
        {575,
         input_output,
         {"read_vrrp_info: IS_NE check failed: remainder (575 != 0) !!!", to_unknown},
         0},
        {1151,
         input_output,
         {"read_vrrp_info: IS_NE check failed: remainder (575 != 0) !!!", to_unknown},
         0},
    };
    Faults faults;
    for (const auto &[length, result, lines, members] : cases) {
        SCOPED_TRACE(length);
        set_debug_flags(0);
        EXPECT_EQ(update_with(two_masters), 0);
        EXPECT_EQ(lh_vrrp_info_update(), 0);
        touch();
        set_debug_flags(vrrp_dbg);
        faults.clear();
        faults.before("mmap", [size = length](unsigned) {
            ASSERT_EQ(truncate(status_path.c_str(), size), 0);
        });
        EXPECT_EQ(update(), result);
        EXPECT_EQ(faults.calls("mmap"), 1u);
        EXPECT_EQ(faults.calls("munmap"), 1u);
        EXPECT_EQ(take_lines(), lines);
        EXPECT_EQ(lh_vrrp_group_members_num_get(1), members);
        EXPECT_EQ(open_descriptors(), descriptors);
        faults.clear();
    }
    expect_works_again(faults);
}

TEST_F(VrrpFailure, AFileThatShrinksHalfwayThroughIsTakenAsFarAsItWasRead)
{
    Faults faults;
    after_first_read = [] { ASSERT_EQ(truncate(status_path.c_str(), 576), 0); };
    replace_read(faults, read_a_hundred_bytes);
    EXPECT_EQ(update(), good);
    EXPECT_EQ(members_of(1), names{"vrrp.1"});
    touch();
    after_first_read = [] { ASSERT_EQ(truncate(status_path.c_str(), 0), 0); };
    replace_read(faults, read_a_hundred_bytes);
    EXPECT_EQ(update(), input_output);
    EXPECT_LINES("read_vrrp_info: IS_NE check failed: remainder (100 != 0) !!!", to_unknown);
    after_first_read = {};
    expect_works_again(faults);
}

TEST_F(VrrpFailure, ALargeFileThatShrinksHalfwayThroughIsTakenAsFarAsItWasRead)
{
    std::string contents;
    for (int vrid = 1; vrid <= 255; vrid++)
        contents += record(vrid, daemon_master, 1);
    Faults faults;
    for (const int left : {1, 63, 64, 65, 128, 129, 254, 255}) {
        SCOPED_TRACE(left);
        for (const off_t more : {0, 1}) {
            rename_over(contents);
            after_first_read = [&] {
                ASSERT_EQ(truncate(status_path.c_str(), left * off_t(record_size) + more), 0);
            };
            replace_read(faults, read_a_hundred_bytes);
            const bool whole = more == 0 || left == 255; // nothing grows behind the last record
            EXPECT_EQ(update(), whole ? good : input_output);
            EXPECT_EQ(lh_vrrp_group_members_num_get(1), whole ? left : 0);
            const auto lines = take_lines();
            if (!whole) {
                ASSERT_FALSE(lines.empty());
                EXPECT_EQ(lines[0], "read_vrrp_info: IS_NE check failed: remainder (1 != 0) !!!");
            }
        }
    }
    after_first_read = {};
    expect_works_again(faults);
}

TEST_F(VrrpFailure, AFileThatGrowsMeanwhileIsReadUpToItsFormerSize)
{
    Faults faults;
    faults.before("mmap", [&](unsigned) {
        std::ofstream(status_path, std::ios::app) << record(3, daemon_fault, 1);
    });
    EXPECT_EQ(update(), good);
    EXPECT_EQ(members_of(1), (names{"vrrp.2", "vrrp.1"}));
    faults.clear();
    EXPECT_EQ(update(), good) << "the growing is an event of its own";
    EXPECT_EQ(members_of(1), (names{"vrrp.3", "vrrp.2", "vrrp.1"}));
    EXPECT_LINES("VRRP_DBG VRRP group 1 change status Master to Fault");
}

TEST_F(VrrpFailure, AFileThatVanishesBeforeItIsOpenedCannotBeOpened)
{
    Faults faults;
    faults.before("open", [](unsigned) { remove_status_file(); });
    EXPECT_EQ(update(), input_output);
    EXPECT_LINES("VRRP_DBG <read_vrrp_info:#> open failed: No such file or directory", to_unknown);
    expect_all_reset();
    expect_works_again(faults);
}

TEST_F(VrrpFailure, AFileThatVanishesBeforeItsSizeIsAskedIsEmpty)
{
    Faults faults;
    faults.before("access", [](unsigned number) {
        if (number == 2)
            remove_status_file();
    });
    EXPECT_EQ(update(), empty);
    EXPECT_EQ(faults.calls("open"), 1u);
    EXPECT_LINES(to_unknown);
    expect_all_reset();
    expect_works_again(faults);
}

TEST_F(VrrpFailure, AFileThatVanishesWhileOpenIsStillRead)
{
    Faults faults;
    faults.before("mmap", [](unsigned) { remove_status_file(); });
    EXPECT_EQ(update(), good);
    EXPECT_EQ(lh_vrrp_group_members_num_get(1), 2);
    faults.clear();
    EXPECT_EQ(update(), good);
    EXPECT_LINES(to_unknown);
    expect_works_again(faults);
}

// The size is the new file's, the bytes are the old one's: the shorter decides.
TEST_F(VrrpFailure, AFileReplacedBetweenOpeningAndSizingIsReadSafely)
{
    const std::string longer = two_masters + record(3, daemon_master, 1);
    const std::string shorter = record(4, daemon_master, 1);
    const std::pair<std::string, names> cases[] = {
        {longer, {"vrrp.2", "vrrp.1"}},
        {shorter, {"vrrp.1"}},
    };
    for (const auto &[replacement, members] : cases) {
        EXPECT_EQ(update_with(two_masters), 0);
        EXPECT_EQ(lh_vrrp_info_update(), 0);
        touch();
        Faults faults;
        faults.before("access", [&, &contents = replacement](unsigned number) {
            if (number == 2)
                rename_over(contents);
        });
        EXPECT_EQ(update(), good);
        EXPECT_EQ(members_of(1), members);
        faults.clear();
        EXPECT_EQ(update(), good) << "the replacing is an event of its own";
        EXPECT_EQ(members_of(1),
                  replacement == longer ? (names{"vrrp.3", "vrrp.2", "vrrp.1"}) : names{"vrrp.4"});
    }
    EXPECT_NO_LINES();
}

// Other things in the file's place ----------------------------------------------------------------

TEST_F(VrrpFailure, AFifoNeitherHoldsThePassNorCounts)
{
    remove_status_file();
    ASSERT_EQ(mkfifo(status_path.c_str(), 0644), 0);
    EXPECT_EQ(update(), empty);
    EXPECT_LINES(to_unknown);
    expect_all_reset();
    Faults faults;
    expect_works_again(faults);
}

TEST_F(VrrpFailure, ADirectoryIsAnInputError)
{
    remove_status_file();
    ASSERT_EQ(mkdir(status_path.c_str(), 0755), 0);
    struct stat st;
    // A directory's size depends on its entries here: once not a number of records, once one.
    ASSERT_EQ(stat(status_path.c_str(), &st), 0);
    ASSERT_NE(st.st_size % record_size, 0u);
    EXPECT_EQ(update(), input_output);
    EXPECT_LINES("read_vrrp_info: IS_NE check failed: remainder (" +
                     std::to_string(st.st_size % record_size) + " != 0) !!!",
                 to_unknown);
    expect_all_reset();
    for (int entry = 0; st.st_size % record_size != 0; entry++) {
        ASSERT_LT(entry, 1000);
        write_file(status_path + "/" + std::to_string(entry), "");
        ASSERT_EQ(stat(status_path.c_str(), &st), 0);
    }
    EXPECT_EQ(update(), input_output);
    EXPECT_LINES("VRRP_DBG <read_vrrp_info:#> mmap failed: Is a directory");
    expect_all_reset();
    std::filesystem::remove_all(status_path);
    Faults faults;
    expect_works_again(faults);
}

TEST_F(VrrpFailure, ALinkIsFollowed)
{
    write_file("/var/cache/elsewhere", record(9, daemon_backup, 1));
    remove_status_file();
    ASSERT_EQ(symlink("elsewhere", status_path.c_str()), 0);
    EXPECT_EQ(update(), good);
    EXPECT_LINES("VRRP_DBG VRRP group 1 change status Master to Backup");
    EXPECT_EQ(members_of(1), names{"vrrp.9"});
}

TEST_F(VrrpFailure, AFileLargerThanAllMemoryIsAnInputError)
{
    ASSERT_EQ(truncate(status_path.c_str(), off_t{576} << 40), 0);
    EXPECT_EQ(update(), input_output);
    EXPECT_LINES("VRRP_DBG <read_vrrp_info:#> mmap failed: Cannot allocate memory", to_unknown);
    expect_all_reset();
    Faults faults;
    expect_works_again(faults);
}

// Nothing is left behind --------------------------------------------------------------------------

TEST_F(VrrpFailure, PassesLeaveNoMappingAndNoDescriptor)
{
    set_debug_flags(0);
    Faults faults;
    const auto passes = [&] {
        for (int pass = 0; pass < 50; pass++) {
            EXPECT_EQ(update_with(two_masters), 0);
            EXPECT_EQ(update_with("short"), -1);
            EXPECT_EQ(update_with(""), -1);
            EXPECT_EQ(update_with(two_masters), 0);
            faults.fail("mmap", ENOMEM);
            EXPECT_EQ(update_with(two_masters), -1);
            replace_read(faults, read_failing<2>);
            EXPECT_EQ(update_with(two_masters), -1);
            faults.clear();
            remove_status_file();
            EXPECT_EQ(lh_vrrp_info_update(), 0);
            take_lines();
        }
    };
    passes();
    const address_space before = measure_address_space();
    passes();
    const address_space after = measure_address_space();
    EXPECT_EQ(after.mappings, before.mappings);
    // Each of the 150 readings of a file with records maps a page; the process's own heap may grow by a few.
    EXPECT_LT(after.pages - before.pages, 100);
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST_F(VrrpFailure, EveryReadingUnmapsAndClosesWhatItOpened)
{
    Faults faults;
    EXPECT_EQ(update(), good);
    EXPECT_EQ(faults.calls("mmap"), 1u);
    EXPECT_EQ(faults.calls("munmap"), 1u);
    EXPECT_EQ(faults.calls("open"), 1u);
    EXPECT_EQ(faults.calls("close"), 1u);
}
