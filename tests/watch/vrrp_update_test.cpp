// The update pass: what the status file says becomes the status of what is followed.
#include "watch/vrrp_fixture.hpp"

#include <algorithm>
#include <fstream>
#include <map>

#include "lh_poll_ctx.h"

using namespace vyt::test;

class VrrpUpdate : public TrackerTest {
  protected:
    // A pass with the debug flag on.
    static answer traced_update()
    {
        set_debug_flags(vrrp_dbg);
        const answer answer = answer_of(77, [] { return lh_vrrp_info_update(); });
        set_debug_flags(0);
        return answer;
    }
};

constexpr answer good = {0, 0};

// Folding -----------------------------------------------------------------------------------------

// The status of a group with members in these daemon states, by the words of the rule: the first
// one in init or fault decides, else one backup makes backup, else all are master.
static int expected_group_status(const std::vector<int> &states)
{
    for (const int state : states) {
        if (state == daemon_init || state == daemon_fault)
            return state == daemon_init ? LH_VRRP_STATUS_INIT : LH_VRRP_STATUS_FAULT;
    }
    const bool backup = std::find(states.begin(), states.end(), daemon_backup) != states.end();
    return backup ? LH_VRRP_STATUS_BACKUP : LH_VRRP_STATUS_MASTER;
}

static std::string records_in_states(const std::vector<int> &states, int group)
{
    std::string contents;
    for (size_t i = 0; i < states.size(); i++)
        contents += record(int(i) + 1, states[i], group);
    return contents;
}

// Every row of the folding table is met, and every order of up to four members.
TEST_F(VrrpUpdate, AGroupsStatusComesFromItsMembersInEveryOrder)
{
    start_with(record(1, daemon_master, 1), {1});
    for (int count = 1; count <= 4; count++) {
        for (int number = 0; number < 1 << (2 * count); number++) {
            std::vector<int> states;
            for (int i = 0; i < count; i++)
                states.push_back(number >> (2 * i) & 3);
            SCOPED_TRACE(::testing::PrintToString(states));
            ASSERT_EQ(update_with(records_in_states(states, 1)), 0);
            const int expected = expected_group_status(states);
            ASSERT_EQ(lh_vrrp_group_status_get(1), expected);
            ASSERT_EQ(lh_vrrp_group_status_is_master(1), expected == LH_VRRP_STATUS_MASTER);
            ASSERT_EQ(lh_vrrp_group_status_is_backup(1), expected == LH_VRRP_STATUS_BACKUP);
            for (int i = 0; i < count; i++)
                ASSERT_EQ(lh_vrrp_instance_status_get("", uint32_t(i) + 1), states[size_t(i)] + 1);
        }
    }
}

TEST_F(VrrpUpdate, TheNamedExamplesOfFoldingHold)
{
    const std::pair<std::vector<int>, int> examples[] = {
        {{daemon_master, daemon_backup}, LH_VRRP_STATUS_BACKUP},
        {{daemon_backup, daemon_master}, LH_VRRP_STATUS_BACKUP},
        {{daemon_master, daemon_fault}, LH_VRRP_STATUS_FAULT},
        {{daemon_fault, daemon_master}, LH_VRRP_STATUS_FAULT},
        {{daemon_init, daemon_fault}, LH_VRRP_STATUS_INIT},
        {{daemon_fault, daemon_init}, LH_VRRP_STATUS_FAULT},
        {{daemon_master, daemon_master}, LH_VRRP_STATUS_MASTER},
    };
    start({9});
    for (const auto &[states, status] : examples) {
        EXPECT_EQ(update_with(records_in_states(states, 9)), 0);
        EXPECT_EQ(lh_vrrp_group_status_get(9), status) << ::testing::PrintToString(states);
    }
}

TEST_F(VrrpUpdate, UnknownDaemonStatesLeaveAnInstanceUnknown)
{
    start({1});
    for (const int state : {-1, 4, 5, 255, INT32_MIN, INT32_MAX}) {
        EXPECT_EQ(update_with(record(1, state, 1)), 0);
        EXPECT_EQ(lh_vrrp_instance_status_get("", 1), LH_VRRP_STATUS_UNKNOWN) << state;
        EXPECT_EQ(lh_vrrp_group_status_get(1), LH_VRRP_STATUS_UNKNOWN);
        EXPECT_EQ(members_of(1), names{"vrrp.1"});
    }
    EXPECT_NO_LINES();
}

// Such a member is neither backup nor master, so the group takes its status, and the next member is
// again the first; Init and Fault are kept.
TEST_F(VrrpUpdate, UnknownDaemonStatesFoldAsTheTableSays)
{
    const int strange = 7;
    const std::pair<std::vector<int>, int> examples[] = {
        {{daemon_master, strange}, LH_VRRP_STATUS_UNKNOWN},
        {{daemon_backup, strange}, LH_VRRP_STATUS_UNKNOWN},
        {{daemon_init, strange}, LH_VRRP_STATUS_INIT},
        {{daemon_fault, strange}, LH_VRRP_STATUS_FAULT},
        {{strange, daemon_master}, LH_VRRP_STATUS_MASTER},
        {{daemon_backup, strange, daemon_master}, LH_VRRP_STATUS_MASTER},
    };
    start({1});
    for (const auto &[states, status] : examples) {
        EXPECT_EQ(update_with(records_in_states(states, 1)), 0);
        EXPECT_EQ(lh_vrrp_group_status_get(1), status) << ::testing::PrintToString(states);
    }
}

TEST_F(VrrpUpdate, GroupsAreFoldedApart)
{
    start({1, 2, 32});
    EXPECT_EQ(update_with(record(1, daemon_master, 1) + record(2, daemon_fault, 2) +
                          record(3, daemon_master, 1, "red") + record(1, daemon_backup, 32, "red")),
              0);
    EXPECT_EQ(lh_vrrp_group_status_get(1), LH_VRRP_STATUS_MASTER);
    EXPECT_EQ(lh_vrrp_group_status_get(2), LH_VRRP_STATUS_FAULT);
    EXPECT_EQ(lh_vrrp_group_status_get(32), LH_VRRP_STATUS_BACKUP);
    EXPECT_EQ(members_of(1), (names{"vrrp.3", "vrrp.1"}));
    EXPECT_EQ(members_of(2), names{"vrrp.2"});
    EXPECT_EQ(members_of(32), names{"vrrp.1"});
}

// What of the file is taken -----------------------------------------------------------------------

TEST_F(VrrpUpdate, TheFilesSizeDecides)
{
    struct {
        size_t size;
        answer result;
        std::vector<std::string> lines;
        int members;
    } const cases[] = {
        {0, {-1, ENOENT}, {}, 0},
        {1, {-1, EIO}, {"read_vrrp_info: IS_NE check failed: remainder (1 != 0) !!!"}, 0},
        {575, {-1, EIO}, {"read_vrrp_info: IS_NE check failed: remainder (575 != 0) !!!"}, 0},
        {576, good, {}, 1},
        {577, {-1, EIO}, {"read_vrrp_info: IS_NE check failed: remainder (1 != 0) !!!"}, 0},
        {1151, {-1, EIO}, {"read_vrrp_info: IS_NE check failed: remainder (575 != 0) !!!"}, 0},
        {1152, good, {}, 2},
        {1153, {-1, EIO}, {"read_vrrp_info: IS_NE check failed: remainder (1 != 0) !!!"}, 0},
        {576 * 255, good, {}, 255},
    };
    std::string contents;
    for (int vrid = 1; vrid <= 255; vrid++)
        contents += record(vrid, daemon_backup, 1);
    contents += "x";
    start({1});
    for (const auto &[size, result, lines, members] : cases) {
        SCOPED_TRACE(size);
        // The pass before had a good file.
        EXPECT_EQ(update_with(contents.substr(0, record_size)), 0);
        rename_over(contents.substr(0, size));
        EXPECT_EQ(answer_of(77, lh_vrrp_info_update), result);
        EXPECT_EQ(take_lines(), lines);
        EXPECT_EQ(lh_vrrp_group_members_num_get(1), members);
        EXPECT_EQ(lh_vrrp_group_status_get(1),
                  members != 0 ? LH_VRRP_STATUS_BACKUP : LH_VRRP_STATUS_UNKNOWN);
    }
}

TEST_F(VrrpUpdate, FilesOfEveryNumberOfRecordsAreReadWhole)
{
    start({1});
    std::string contents;
    names expected;
    for (int count = 1; count <= 255; count++) {
        contents += record(count, count % 4, 1, count % 3 == 0 ? "red" : "");
        expected.insert(expected.begin(), "vrrp." + std::to_string(count));
        ASSERT_EQ(update_with(contents), 0);
        ASSERT_EQ(members_of(1), expected);
        for (int vrid = 1; vrid <= count; vrid++)
            ASSERT_EQ(lh_vrrp_instance_status_get(vrid % 3 == 0 ? "red" : "", uint32_t(vrid)),
                      vrid % 4 + 1);
    }
}

TEST_F(VrrpUpdate, AMissingFileIsNoError)
{
    start({1});
    EXPECT_EQ(lh_vrrp_instance_info_update_enable("red", 1), 0);
    EXPECT_EQ(traced_update(), good);
    EXPECT_EQ(lh_vrrp_group_status_get(1), LH_VRRP_STATUS_UNKNOWN);
    EXPECT_EQ(lh_vrrp_instance_status_get("red", 1), LH_VRRP_STATUS_UNKNOWN);
    EXPECT_NO_LINES();
}

TEST_F(VrrpUpdate, InvalidRecordsAreSkippedAndTheRestIsRead)
{
    start({1});
    rename_over(record(0, daemon_fault, 1) + record(1, daemon_master, 1) +
                record(256, daemon_fault, 1) + record(-1, daemon_fault, 0) +
                record(3, daemon_fault, 33) + record(2, daemon_master, 1) +
                record(4, daemon_fault, -1) + record(INT32_MIN, daemon_fault, 99) +
                record(5, daemon_fault, INT32_MAX) + record(255, daemon_master, 1));
    EXPECT_EQ(traced_update(), good);
    EXPECT_LINES("VRRP_DBG <read_vrrp_info> invalid Virtual Router Id 0",
                 "VRRP_DBG <read_vrrp_info> invalid Virtual Router Id 256",
                 "VRRP_DBG <read_vrrp_info> invalid Virtual Router Id -1",
                 "VRRP_DBG <read_vrrp_info> invalid VRRP group 33",
                 "VRRP_DBG <read_vrrp_info> invalid VRRP group -1",
                 "VRRP_DBG <read_vrrp_info> invalid Virtual Router Id -2147483648",
                 "VRRP_DBG <read_vrrp_info> invalid VRRP group 2147483647",
                 "VRRP_DBG VRRP group 1 change status Unknown to Master");
    EXPECT_EQ(members_of(1), (names{"vrrp.255", "vrrp.2", "vrrp.1"}));
    EXPECT_FAILS(ENODATA, lh_vrrp_instance_status_get("", 3));
}

TEST_F(VrrpUpdate, InvalidRecordsAreSilentWithoutTheFlag)
{
    start({1});
    EXPECT_EQ(update_with(record(0, daemon_fault, 1) + record(1, daemon_fault, 33)), 0);
    EXPECT_NO_LINES();
    EXPECT_EQ(lh_vrrp_group_members_num_get(1), 0);
}

TEST_F(VrrpUpdate, RecordsWithoutAGroupCountForInstancesOfTheirOwnOnly)
{
    start({1});
    EXPECT_EQ(lh_vrrp_instance_info_update_enable("red", 5), 0);
    EXPECT_EQ(update_with(record(5, daemon_fault, 0, "red") + record(6, daemon_fault, 0, "red") +
                          record(5, daemon_fault, 0)),
              0);
    EXPECT_EQ(lh_vrrp_instance_status_get("red", 5), LH_VRRP_STATUS_FAULT);
    EXPECT_FAILS(ENODATA, lh_vrrp_instance_status_get("red", 6));
    EXPECT_QUIETLY(-1, lh_vrrp_instance_status_get("", 5));
    EXPECT_EQ(lh_vrrp_group_members_num_get(1), 0);
}

TEST_F(VrrpUpdate, MembersOfGroupsThatAreNotFollowedCountForInstancesOfTheirOwnOnly)
{
    start({1});
    EXPECT_EQ(lh_vrrp_instance_info_update_enable("red", 5), 0);
    EXPECT_EQ(update_with(record(5, daemon_init, 2, "red") + record(6, daemon_fault, 2, "red") +
                          record(5, daemon_fault, 2)),
              0);
    EXPECT_EQ(lh_vrrp_instance_status_get("red", 5), LH_VRRP_STATUS_INIT);
    EXPECT_FAILS(ENODATA, lh_vrrp_instance_status_get("red", 6));
    EXPECT_QUIETLY(-1, lh_vrrp_instance_status_get("", 5));
    EXPECT_EQ(lh_vrrp_group_members_num_get(1), 0);
    EXPECT_FAILS(ENODATA, lh_vrrp_group_members_num_get(2));
}

TEST_F(VrrpUpdate, NothingBeyondARecordsEndIsReadAsItsNamespace)
{
    const std::string full(55, 'n'); // fills the record, no terminator
    const std::string kept(31, 'n');
    start({1});
    EXPECT_EQ(update_with(record(1, daemon_master, 1, full) + record(2, daemon_master, 1, full)),
              0);
    EXPECT_EQ(members_of(1), (names{"vrrp.2", "vrrp.1"}));
    EXPECT_EQ(lh_vrrp_instance_status_get(kept.c_str(), 2), LH_VRRP_STATUS_MASTER)
        << "the newest of the namespaces whose shortened name it is";
    EXPECT_FAILS(ENODATA, lh_vrrp_instance_status_get(kept.c_str(), 1));
    // Passes do not pile the unfindable ones up.
    EXPECT_EQ(update_with(record(1, daemon_backup, 1, full)), 0);
    EXPECT_EQ(members_of(1), names{"vrrp.1"});
    EXPECT_EQ(lh_vrrp_instance_status_get(kept.c_str(), 1), LH_VRRP_STATUS_BACKUP);
    EXPECT_FAILS(ENODATA, lh_vrrp_instance_status_get(kept.c_str(), 2));
}

TEST_F(VrrpUpdate, TheDefaultNamespaceMayBeWrittenEitherWay)
{
    start({1});
    EXPECT_EQ(update_with(record(1, daemon_master, 1, "") + record(2, daemon_backup, 1, "1")), 0);
    for (const char *spelling : {"", "1"}) {
        EXPECT_EQ(lh_vrrp_instance_status_get(spelling, 1), LH_VRRP_STATUS_MASTER);
        EXPECT_EQ(lh_vrrp_instance_status_get(spelling, 2), LH_VRRP_STATUS_BACKUP);
    }
}

// When a pass reads -------------------------------------------------------------------------------

TEST_F(VrrpUpdate, NothingEnabledIsNoDataAndLeavesTheWatcherAlone)
{
    write_file(status_path, record(1, daemon_master, 1));
    start();
    Faults faults;
    set_debug_flags(vrrp_dbg | inotify_dbg);
    EXPECT_FAILS(ENODATA, lh_vrrp_info_update());
    EXPECT_NO_LINES();
    for (const char *call : {"read", "stat", "access", "inotify_add_watch", "open"})
        EXPECT_EQ(faults.calls(call), 0u) << call;
}

TEST_F(VrrpUpdate, APassWithoutAChangeReadsNothing)
{
    start_with(record(1, daemon_master, 1), {1});
    Faults faults;
    for (int pass = 0; pass < 5; pass++)
        EXPECT_EQ(traced_update().result, 0);
    EXPECT_EQ(faults.calls("open"), 0u);
    EXPECT_GT(faults.calls("read"), 0u) << "but the watcher is asked";
    EXPECT_NO_LINES();
    EXPECT_EQ(lh_vrrp_group_status_get(1), LH_VRRP_STATUS_MASTER);
    EXPECT_EQ(members_of(1), names{"vrrp.1"});
}

TEST_F(VrrpUpdate, AGroupWithoutAStatusMakesEveryPassRead)
{
    start_with(record(1, daemon_master, 1), {1});
    Faults faults;
    EXPECT_EQ(lh_vrrp_group_info_update_enable(2), 0);
    for (unsigned pass = 1; pass <= 3; pass++) {
        EXPECT_EQ(lh_vrrp_info_update(), 0);
        EXPECT_EQ(faults.calls("open"), pass);
    }
    EXPECT_EQ(lh_vrrp_group_info_update_disable(2), 0);
    EXPECT_EQ(lh_vrrp_info_update(), 0);
    EXPECT_EQ(faults.calls("open"), 3u);
}

TEST_F(VrrpUpdate, AnInstanceWithoutAStatusMakesEveryPassRead)
{
    start_with(record(1, daemon_master, 1), {1});
    Faults faults;
    EXPECT_EQ(lh_vrrp_instance_info_update_enable("red", 2), 0);
    for (unsigned pass = 1; pass <= 3; pass++) {
        EXPECT_EQ(lh_vrrp_info_update(), 0);
        EXPECT_EQ(faults.calls("open"), pass);
    }
    EXPECT_EQ(update_with(record(1, daemon_master, 1) + record(2, daemon_init, 0, "red")), 0);
    EXPECT_EQ(lh_vrrp_instance_status_get("red", 2), LH_VRRP_STATUS_INIT);
    EXPECT_EQ(faults.calls("open"), 4u);
    EXPECT_EQ(lh_vrrp_info_update(), 0);
    EXPECT_EQ(lh_vrrp_info_update(), 0);
    EXPECT_LE(faults.calls("open"), 5u) << "at most once more for a file that has just appeared";
}

TEST_F(VrrpUpdate, AGoodReadingLeavesErrnoZero)
{
    start({1});
    rename_over(record(1, daemon_master, 1));
    EXPECT_EQ(answer_of(77, lh_vrrp_info_update), good);
    // With lines written on the way, too.
    rename_over(record(0, daemon_master, 1));
    EXPECT_EQ(traced_update(), good);
    EXPECT_LINES("VRRP_DBG <read_vrrp_info> invalid Virtual Router Id 0",
                 "VRRP_DBG VRRP group 1 change status Master to Unknown");
}

// Changes -----------------------------------------------------------------------------------------

TEST_F(VrrpUpdate, ChangesOfGroupsAreReportedInTheirOrder)
{
    start({32, 1, 7});
    const auto reported = [](const std::string &contents) {
        rename_over(contents);
        EXPECT_EQ(traced_update(), good);
        return take_lines();
    };
    const auto all = [](int state) {
        return record(1, state, 32) + record(2, state, 7) + record(3, state, 1);
    };
    const auto change = [](const char *group, const char *from, const char *to) {
        return std::string("VRRP_DBG VRRP group ") + group + " change status " + from + " to " + to;
    };
    using lines = std::vector<std::string>;
    const char *const texts[] = {"Init", "Backup", "Master", "Fault"};
    const char *before = "Unknown";
    for (const int state : {daemon_init, daemon_master, daemon_fault, daemon_backup}) {
        EXPECT_EQ(reported(all(state)),
                  (lines{change("1", before, texts[state]), change("7", before, texts[state]),
                         change("32", before, texts[state])}));
        before = texts[state];
        EXPECT_EQ(reported(all(state)), lines{}) << "read again, nothing changed";
    }
    EXPECT_EQ(reported(all(daemon_backup) + record(4, daemon_fault, 7)),
              lines{change("7", "Backup", "Fault")});
    EXPECT_EQ(reported(record(1, daemon_backup, 32) + record(3, daemon_backup, 1)),
              lines{change("7", "Fault", "Unknown")});
    remove_status_file();
    EXPECT_EQ(traced_update(), good);
    EXPECT_LINES(change("1", "Backup", "Unknown"), change("32", "Backup", "Unknown"));
    EXPECT_EQ(traced_update(), good);
    EXPECT_NO_LINES();
}

TEST_F(VrrpUpdate, ChangesAreSilentWithoutTheFlag)
{
    start_with(record(1, daemon_master, 1), {1});
    set_debug_flags(inotify_dbg);
    write_in_place(record(1, daemon_backup, 1));
    EXPECT_EQ(lh_vrrp_info_update(), 0);
    EXPECT_NO_LINES();
    EXPECT_EQ(lh_vrrp_group_status_get(1), LH_VRRP_STATUS_BACKUP);
}

// A pass without a reading shifts nothing: the next change is told from the last reading's status.
TEST_F(VrrpUpdate, PassesWithoutAReadingKeepThePreviousStatus)
{
    start_with(record(1, daemon_master, 1), {1});
    EXPECT_EQ(traced_update().result, 0);
    EXPECT_EQ(traced_update().result, 0);
    write_in_place(record(1, daemon_fault, 1));
    EXPECT_EQ(traced_update(), good);
    EXPECT_LINES("VRRP_DBG VRRP group 1 change status Master to Fault");
}

TEST_F(VrrpUpdate, AFailedReadingResetsAndReportsAndCleansUp)
{
    start_with(record(1, daemon_master, 1) + record(2, daemon_master, 0, "red"), {1});
    EXPECT_EQ(lh_vrrp_instance_info_update_enable("red", 2), 0);
    EXPECT_EQ(lh_vrrp_info_update(), 0);
    write_file(status_path, "short");
    EXPECT_EQ(traced_update(), (answer{-1, EIO}));
    EXPECT_LINES("read_vrrp_info: IS_NE check failed: remainder (5 != 0) !!!",
                 "VRRP_DBG VRRP group 1 change status Master to Unknown");
    EXPECT_EQ(lh_vrrp_group_status_get(1), LH_VRRP_STATUS_UNKNOWN);
    EXPECT_EQ(lh_vrrp_group_members_num_get(1), 0);
    EXPECT_EQ(lh_vrrp_instance_status_get("red", 2), LH_VRRP_STATUS_UNKNOWN);
    EXPECT_QUIETLY(-1, lh_vrrp_instance_status_get("", 1)) << "the cleanup forgot its namespace";
    EXPECT_EQ(update_with(record(1, daemon_master, 1)), 0);
    EXPECT_EQ(lh_vrrp_group_status_get(1), LH_VRRP_STATUS_MASTER);
}

// The daemon's poll loop --------------------------------------------------------------------------

// A daemon whose handler, once it has seen the status it waits for, lets the next thing happen to
// the file; the loop ends with the last stage.
struct watching_daemon {
    struct stage {
        std::function<void()> act;
        int status;
    };
    lh_poll_ctx ctx = {};
    std::vector<stage> stages;
    size_t reached = 0;

    static int on_status(int, void *arg)
    {
        auto *daemon = static_cast<watching_daemon *>(arg);
        lh_vrrp_info_update();
        const auto &stage = daemon->stages[daemon->reached];
        if (lh_vrrp_group_status_get(1) == stage.status) {
            if (++daemon->reached == daemon->stages.size())
                lh_poll_ctx_main_loop_break(&daemon->ctx);
            else
                daemon->stages[daemon->reached].act();
        }
        return 0;
    }

    void run(int fd)
    {
        ctx.timeout = 1000;
        ctx.duration = 60; // a limit for a run that fails
        EXPECT_EQ(lh_vrrp_info_update(), 0);
        EXPECT_EQ(lh_poll_ctx_fd_add(&ctx, "vrrp", fd, on_status, this), 0);
        stages[0].act();
        lh_poll_ctx_main_loop(&ctx);
        EXPECT_EQ(reached, stages.size());
        lh_poll_ctx_free(&ctx);
    }
};

TEST_F(VrrpUpdate, APollLoopFollowsWhateverHappensToTheFile)
{
    make_cache_removable();
    const int fd = start({1});
    watching_daemon daemon;
    const auto as = [](int state) { return record(1, state, 1); };
    daemon.stages = {
        {[&] { write_file(status_path, as(daemon_master)); }, LH_VRRP_STATUS_MASTER},
        {[&] { write_in_place(as(daemon_backup)); }, LH_VRRP_STATUS_BACKUP},
        {[&] { truncate_and_write(as(daemon_fault)); }, LH_VRRP_STATUS_FAULT},
        {[&] { rename_over(as(daemon_init)); }, LH_VRRP_STATUS_INIT},
        {[&] { write_in_place(as(daemon_master)); }, LH_VRRP_STATUS_MASTER},
        {remove_status_file, LH_VRRP_STATUS_UNKNOWN},
        {[&] { write_file(status_path, as(daemon_backup)); }, LH_VRRP_STATUS_BACKUP},
        {[] { std::filesystem::remove_all("/var/cache"); }, LH_VRRP_STATUS_UNKNOWN},
        {[&] { write_file(status_path, as(daemon_master)); }, LH_VRRP_STATUS_MASTER},
        {[&] { rename_over(as(daemon_fault)); }, LH_VRRP_STATUS_FAULT},
    };
    daemon.run(fd);
}

TEST_F(VrrpUpdate, TheDirectoryIsMadeWhenItIsMissingAtTheStart)
{
    make_cache_removable();
    ASSERT_EQ(rmdir("/var/cache"), 0);
    start({1});
    const mode_t mask = umask(077);
    EXPECT_EQ(lh_vrrp_info_update(), 0);
    EXPECT_EQ(umask(mask), mode_t{077});
    struct stat st;
    ASSERT_EQ(stat("/var/cache", &st), 0);
    EXPECT_EQ(st.st_mode, mode_t{S_IFDIR | 0777});
    write_file(status_path, record(1, daemon_master, 1));
    EXPECT_EQ(lh_vrrp_info_update(), 0);
    EXPECT_EQ(lh_vrrp_group_status_get(1), LH_VRRP_STATUS_MASTER);
}

TEST_F(VrrpUpdate, ADirectoryReplacedByAnotherIsFollowed)
{
    make_cache_removable();
    start_with(record(1, daemon_master, 1), {1});
    ASSERT_EQ(rename("/var/cache", "/var/old"), 0);
    ASSERT_EQ(mkdir("/var/cache", 0755), 0);
    write_file(status_path, record(1, daemon_backup, 1));
    EXPECT_EQ(lh_vrrp_info_update(), 0);
    EXPECT_EQ(lh_vrrp_group_status_get(1), LH_VRRP_STATUS_BACKUP);
}

// However fast the file comes and goes, the last contents win.
TEST_F(VrrpUpdate, ManyChangesBetweenTwoPassesEndWithTheLastOne)
{
    start_with(record(1, daemon_master, 1), {1});
    for (int round = 0; round < 20; round++) {
        for (const int state : {daemon_init, daemon_fault, daemon_backup}) {
            rename_over(record(1, state, 1));
            write_in_place(record(1, daemon_fault, 1));
            remove_status_file();
            write_file(status_path, record(1, state, 1));
        }
        ASSERT_EQ(lh_vrrp_info_update(), 0);
        ASSERT_EQ(lh_vrrp_group_status_get(1), LH_VRRP_STATUS_BACKUP);
    }
}
