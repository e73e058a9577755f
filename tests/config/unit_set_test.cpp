#include "lh_unit.h"

#include <optional>
#include <random>
#include <unistd.h>

#include "config/unit_fixture.hpp"
#include "support/faults.hpp"

using namespace vyt::test;

// Setting the record -----------------------------------------------------------------------------

TEST_F(Unit, SettingWritesTheFileAndKeepsTheRecord)
{
    OWN_PROCESS();
    write_file(unit_file, "1 1 3 4 2 and more than the new text\n");
    EXPECT_EQ(lh_unit_id_get(), 3);
    const lh_unit_t unit = {1, 1, 2, 4, 1};
    EXPECT_EQ(lh_unit_set(&unit), 0);
    EXPECT_EQ(read_file(unit_file), "1 1 2 4 1\n");
    EXPECT_EQ(kept(), unit);
    EXPECT_EQ(lh_unit_id_get(), 2);
    int id = 0, after = 0;
    EXPECT_EQ(lh_unit_ids_get(&id, &after), 0);
    EXPECT_EQ(id, 2);
    EXPECT_EQ(after, 4);
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(Unit, SettingLeavesTheIdStringStale)
{
    OWN_PROCESS();
    write_file(unit_file, "1 1 3 4 2\n");
    const char *const text = lh_unit_id_get_str_static();
    const lh_unit_t unit = {1, 1, 2, 2, 2};
    EXPECT_EQ(lh_unit_set(&unit), 0);
    EXPECT_EQ(lh_unit_ids_set(4, 4), 0);
    EXPECT_EQ(lh_unit_id_get(), 4);
    EXPECT_EQ(lh_unit_id_get_str_static(), text);
    EXPECT_STREQ(text, "3");
}

TEST_F(Unit, SettingFirstTakesThePlaceOfReading)
{
    OWN_PROCESS();
    write_file(unit_file, "junk");
    const lh_unit_t unit = {1, 1, 2, 3, 4};
    Faults faults;
    EXPECT_EQ(lh_unit_set(&unit), 0);
    EXPECT_EQ(faults.calls("access"), 0u);
    EXPECT_EQ(faults.calls("fopen"), 1u);
    EXPECT_EQ(lh_unit_init(), 0);
    EXPECT_EQ(kept(), unit);
    EXPECT_STREQ(lh_unit_id_get_str_static(), "") << "it is formatted by a load only";
    EXPECT_EQ(faults.calls("fopen"), 1u);
}

TEST_F(Unit, EveryFieldIsCheckedBeforeAnythingIsWritten)
{
    OWN_PROCESS();
    write_file(unit_file, "1 1 3 4 2\n");
    struct {
        uint32_t lh_unit_t::*field;
        const char *name;
        uint32_t max;
    } const fields[] = {
        {&lh_unit_t::mode, "unit->mode", 1},
        {&lh_unit_t::mode_after_reboot, "unit->mode_after_reboot", 1},
        {&lh_unit_t::id, "unit->id", 4},
        {&lh_unit_t::id_after_reboot, "unit->id_after_reboot", 4},
        {&lh_unit_t::old_id_after_reboot, "unit->old_id_after_reboot", 4},
    };
    Faults faults;
    for (const auto &checked : fields)
        for (const uint32_t value : {0u, checked.max + 1, 0x80000000u, minus_one}) {
            lh_unit_t unit = {1, 1, 4, 4, 4};
            unit.*checked.field = value;
            EXPECT_EQ(lh_unit_set(&unit), -1);
            EXPECT_LINES(out_of_range("lh_unit_set", checked.name, value, checked.max));
        }
    EXPECT_EQ(faults.calls("fopen"), 0u);
    EXPECT_EQ(read_file(unit_file), "1 1 3 4 2\n");
    EXPECT_EQ(kept(), (lh_unit_t{1, 1, 3, 4, 2})) << "the record has not been loaded before";
}

TEST_F(Unit, OnlyTheFirstBadFieldIsLogged)
{
    lh_unit_t unit = {9, 8, 7, 6, 5};
    for (const auto &[field, line] :
         {std::pair{&lh_unit_t::mode, out_of_range("lh_unit_set", "unit->mode", 9, 1)},
          std::pair{&lh_unit_t::mode_after_reboot,
                    out_of_range("lh_unit_set", "unit->mode_after_reboot", 8, 1)},
          std::pair{&lh_unit_t::id, out_of_range("lh_unit_set", "unit->id", 7, 4)},
          std::pair{&lh_unit_t::id_after_reboot,
                    out_of_range("lh_unit_set", "unit->id_after_reboot", 6, 4)},
          std::pair{&lh_unit_t::old_id_after_reboot,
                    out_of_range("lh_unit_set", "unit->old_id_after_reboot", 5, 4)}}) {
        EXPECT_EQ(lh_unit_set(&unit), -1);
        EXPECT_LINES(line);
        unit.*field = 1;
    }
}

TEST_F(Unit, BoundsThemselvesAreGood)
{
    OWN_PROCESS();
    for (const lh_unit_t &unit : {alone, lh_unit_t{1, 1, 4, 4, 4}}) {
        EXPECT_EQ(lh_unit_set(&unit), 0);
        EXPECT_EQ(read_file(unit_file), text_of(unit));
        EXPECT_EQ(kept(), unit);
    }
}

TEST_F(Unit, SettingNewNumbersKeepsAnotherOldOneThanTheFile)
{
    OWN_PROCESS();
    EXPECT_EQ(lh_unit_ids_set(2, 3), 0);
    EXPECT_EQ(read_file(unit_file), "1 1 2 3 1\n");
    EXPECT_EQ(kept(), (lh_unit_t{1, 1, 2, 3, 3}));
    EXPECT_EQ(lh_unit_ids_set(4, 2), 0);
    EXPECT_EQ(read_file(unit_file), "1 1 4 2 3\n");
    EXPECT_EQ(kept(), (lh_unit_t{1, 1, 4, 2, 2}));
    EXPECT_STREQ(lh_unit_id_get_str_static(), "1") << "the number when the record was loaded";
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(Unit, SettingNewNumbersLoadsTheRecordFirst)
{
    OWN_PROCESS();
    write_file(unit_file, "7 1 3 4 2\n");
    EXPECT_EQ(lh_unit_ids_set(2, 1), 0);
    EXPECT_LINES(out_of_range("lh_unit_init", "unit_mode", 7, 1), bad_mode);
    EXPECT_EQ(read_file(unit_file), "1 1 2 1 4\n");
    EXPECT_EQ(kept(), (lh_unit_t{1, 1, 2, 1, 1}));
    EXPECT_STREQ(lh_unit_id_get_str_static(), "3");
}

TEST_F(Unit, NewNumbersAreNotChecked)
{
    OWN_PROCESS();
    EXPECT_EQ(lh_unit_ids_set(-5, 100), 0);
    EXPECT_EQ(read_file(unit_file), "1 1 -5 100 1\n");
    EXPECT_EQ(lh_unit_id_get(), -5);
    int id = 0, after = 0;
    EXPECT_EQ(lh_unit_ids_get(&id, &after), 0);
    EXPECT_EQ(id, -5);
    EXPECT_EQ(after, 100);
    EXPECT_EQ(lh_unit_ids_set(INT32_MIN, INT32_MAX), 0);
    EXPECT_EQ(read_file(unit_file), "1 1 -2147483648 2147483647 100\n");
    EXPECT_EQ(lh_unit_id_after_reboot_get(&after), 0);
    EXPECT_EQ(after, INT32_MAX);
    EXPECT_EQ(kept(), (lh_unit_t{1, 1, 0x80000000u, 0x7fffffffu, 0x7fffffffu}));
}

// Failing writes ---------------------------------------------------------------------------------

namespace {

struct write_failure {
    const char *call;
    int error;
    std::string line;     // of the helper
    std::string own_line; // of the setter
    const char *file_then;
};

const write_failure write_failures[] = {
    {"vasprintf", ENOMEM, "lh_str_add: vasprintf failed", "lh_str_add failed", "1 1 3 4 2\n"},
    {"fopen", EROFS,
     std::string("lh_file_write: fopen '") + unit_file + "' failed: Read-only file system",
     "lh_file_write failed", "1 1 3 4 2\n"},
    {"fwrite", ENOSPC, "lh_file_write: IS_NE check failed: nmemb (1 != 0) !!!",
     "lh_file_write failed", ""},
};

} // namespace

TEST_F(Unit, FailingSetChangesNothingForTheProcess)
{
    OWN_PROCESS();
    write_file(unit_file, "1 1 3 4 2\n");
    EXPECT_EQ(lh_unit_init(), 0);
    const lh_unit_t unit = {1, 1, 2, 1, 4};
    for (const write_failure &failure : write_failures) {
        write_file(unit_file, "1 1 3 4 2\n");
        Faults faults;
        faults.fail(failure.call, failure.error);
        errno = 0;
        EXPECT_EQ(lh_unit_set(&unit), -1) << failure.call;
        EXPECT_EQ(errno, failure.error);
        EXPECT_LINES(failure.line, "lh_unit_set: " + failure.own_line);
        EXPECT_EQ(kept(), (lh_unit_t{1, 1, 3, 4, 2}));
        EXPECT_EQ(read_file(unit_file), failure.file_then);
        EXPECT_EQ(open_descriptors(), before);
    }
    EXPECT_EQ(lh_unit_set(&unit), 0);
    EXPECT_EQ(kept(), unit);
}

TEST_F(Unit, FailingSetOfNumbersChangesNothingForTheProcess)
{
    OWN_PROCESS();
    write_file(unit_file, "1 1 3 4 2\n");
    EXPECT_EQ(lh_unit_init(), 0);
    for (const write_failure &failure : write_failures) {
        write_file(unit_file, "1 1 3 4 2\n");
        Faults faults;
        faults.fail(failure.call, failure.error);
        errno = 0;
        EXPECT_EQ(lh_unit_ids_set(1, 2), -1) << failure.call;
        EXPECT_EQ(errno, failure.error);
        EXPECT_LINES(failure.line, "lh_unit_ids_set: " + failure.own_line);
        EXPECT_EQ(kept(), (lh_unit_t{1, 1, 3, 4, 2}));
        EXPECT_EQ(read_file(unit_file), failure.file_then);
        EXPECT_EQ(open_descriptors(), before);
    }
    EXPECT_EQ(lh_unit_ids_set(1, 2), 0);
    EXPECT_EQ(read_file(unit_file), "1 1 1 2 4\n");
    EXPECT_EQ(kept(), (lh_unit_t{1, 1, 1, 2, 2}));
}

TEST_F(Unit, FailingSetIsNoLoad)
{
    OWN_PROCESS();
    write_file(unit_file, "1 1 3 4 2\n");
    const lh_unit_t unit = {1, 1, 2, 1, 4};
    Faults faults;
    faults.fail("fopen", EROFS);
    EXPECT_EQ(lh_unit_set(&unit), -1);
    EXPECT_LINES(write_failures[1].line, "lh_unit_set: lh_file_write failed");
    EXPECT_EQ(kept(), (lh_unit_t{1, 1, 3, 4, 2}));
    EXPECT_STREQ(lh_unit_id_get_str_static(), "3");
}

TEST_F(Unit, DirectoryIsNotMade)
{
    OWN_PROCESS();
    std::filesystem::remove_all("/mnt/config");
    const std::string line =
        std::string("lh_file_write: fopen '") + unit_file + "' failed: No such file or directory";
    const lh_unit_t unit = {1, 1, 2, 3, 4};
    EXPECT_EQ(lh_unit_set(&unit), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_LINES(line, "lh_unit_set: lh_file_write failed");
    EXPECT_EQ(lh_unit_ids_set(2, 3), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_LINES(line, "lh_unit_ids_set: lh_file_write failed");
    EXPECT_EQ(kept(), alone);
    EXPECT_NE(access("/mnt/config", F_OK), 0);
}

// Any sequence of calls --------------------------------------------------------------------------

namespace {

// The file and the record as the calls should leave them.
struct model {
    std::string text;
    std::optional<lh_unit_t> unit;
    std::string id_text;

    void load()
    {
        if (unit)
            return;
        unit = alone;
        if (!text.empty())
            sscanf(text.c_str(), "%u %u %u %u %u", &unit->mode, &unit->mode_after_reboot, &unit->id,
                   &unit->id_after_reboot, &unit->old_id_after_reboot);
        id_text = std::to_string(unit->id);
    }
    void set(const lh_unit_t &next)
    {
        text = text_of(next);
        unit = next;
    }
    void ids_set(uint32_t id, uint32_t after)
    {
        load();
        text = text_of({unit->mode, unit->mode_after_reboot, id, after, unit->id_after_reboot});
        unit = {unit->mode, unit->mode_after_reboot, id, after, after};
    }
};

// A few calls in a fresh process, some of which cannot write.
void run_calls(std::mt19937 &random, const std::string &text)
{
    model expected = {text, {}, ""};
    const auto any_id = [&random] { return static_cast<uint32_t>(random() % 4 + 1); };
    Faults faults;
    for (unsigned n = random() % 8 + 1; n > 0; n--) {
        const bool fails = random() % 4 == 0;
        const unsigned call = random() % 4;
        if (call == 0) {
            expected.load();
            EXPECT_STREQ(lh_unit_id_get_str_static(), expected.id_text.c_str());
        } else if (call == 1) {
            expected.load();
            EXPECT_EQ(lh_unit_id_get(), static_cast<int>(expected.unit->id));
        } else if (call == 2) {
            const lh_unit_t unit = {1, 1, any_id(), any_id(), any_id()};
            if (fails)
                faults.fail_always("vasprintf", ENOMEM);
            else
                expected.set(unit);
            EXPECT_EQ(lh_unit_set(&unit), fails ? -1 : 0);
        } else {
            const uint32_t id = any_id(), after = any_id();
            if (fails) {
                faults.fail_always("vasprintf", ENOMEM);
                expected.load();
            } else {
                expected.ids_set(id, after);
            }
            EXPECT_EQ(lh_unit_ids_set(id, after), fails ? -1 : 0);
        }
        EXPECT_EQ(take_lines().size(), fails && call >= 2 ? 2u : 0u);
        faults.clear();
        EXPECT_EQ(read_file(unit_file), expected.text);
        if (expected.unit) {
            EXPECT_EQ(kept(), *expected.unit);
        }
    }
}

} // namespace

TEST_F(UnitLoad, CallsInAnyOrderKeepFileRecordAndStringAsTheyShould)
{
    OWN_PROCESS();
    constexpr unsigned seed = 20240612;
    std::mt19937 random(seed);
    for (unsigned round = 0; round < 200; round++) {
        SCOPED_TRACE("seed " + std::to_string(seed) + " round " + std::to_string(round));
        const bool is_there = random() % 3 != 0;
        const std::string text = is_there ? "1 1 3 2 4\n" : "";
        std::filesystem::remove(unit_file);
        if (is_there)
            write_file(unit_file, text);
        std::mt19937 calls(random());
        ASSERT_EQ(run_in_child([&] {
                      run_calls(calls, text);
                      return 0;
                  }),
                  0);
    }
}
