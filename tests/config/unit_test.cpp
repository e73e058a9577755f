#include "lh_unit.h"

#include <cstddef>
#include <functional>
#include <random>
#include <unistd.h>

#include "config/unit_fixture.hpp"
#include "support/faults.hpp"

using namespace vyt::test;

TEST_F(Unit, RecordIsFiveNumbersOf32Bits)
{
    EXPECT_EQ(sizeof(lh_unit_t), 20u);
    EXPECT_EQ(offsetof(lh_unit_t, mode), 0u);
    EXPECT_EQ(offsetof(lh_unit_t, mode_after_reboot), 4u);
    EXPECT_EQ(offsetof(lh_unit_t, id), 8u);
    EXPECT_EQ(offsetof(lh_unit_t, id_after_reboot), 12u);
    EXPECT_EQ(offsetof(lh_unit_t, old_id_after_reboot), 16u);
    EXPECT_EQ(LH_UNIT_MODE_STANDALONE, 1);
    EXPECT_EQ(LH_UNIT_ID_MAX, 4);
}

// Loading ----------------------------------------------------------------------------------------

TEST_F(UnitLoad, MissingFileIsAUnitThatStandsAlone)
{
    OWN_PROCESS();
    expect_load_of_what_is_there(alone, {});
    EXPECT_NE(access(unit_file, F_OK), 0) << "no file is made";
    std::filesystem::remove_all("/mnt/config");
    expect_load_of_what_is_there(alone, {});
}

TEST_F(UnitLoad, GoodFileIsTakenAsItIs)
{
    OWN_PROCESS();
    expect_load("1 1 2 3 4\n", {1, 1, 2, 3, 4}, {});
    for (uint32_t id = 1; id <= 4; id++)
        for (uint32_t after = 1; after <= 4; after++) {
            const lh_unit_t unit = {1, 1, id, after, 5 - id};
            expect_load(text_of(unit), unit, {});
        }
}

TEST_F(UnitLoad, AnyWhiteSpaceSeparates)
{
    OWN_PROCESS();
    expect_load("1 1 2 3 4", {1, 1, 2, 3, 4}, {});
    expect_load("\n 1\t1\r\n2\v\f3   4 ", {1, 1, 2, 3, 4}, {});
    expect_load("+1 01 2 0003 4\n", {1, 1, 2, 3, 4}, {});
}

TEST_F(UnitLoad, FourNumbersAreEnough)
{
    OWN_PROCESS();
    expect_load("1 1 3 4", {1, 1, 3, 4, 1}, {});
    expect_load("1 1 3 4\n", {1, 1, 3, 4, 1}, {});
    expect_load("1 1 3 4 x\n", {1, 1, 3, 4, 1}, {});
    expect_load("1 1 3 4.5\n", {1, 1, 3, 4, 1}, {});
}

TEST_F(UnitLoad, WhatFollowsTheFifthNumberIsNotRead)
{
    OWN_PROCESS();
    expect_load("1 1 3 4 2 9 junk\n", {1, 1, 3, 4, 2}, {});
    expect_load("1 1 3 4 2junk", {1, 1, 3, 4, 2}, {});
}

TEST_F(UnitLoad, FewerNumbersAreInvalidData)
{
    OWN_PROCESS();
    for (const char *contents : {"", "\n", " \n\t", "x", "1", "1 1 2", "1 1 2 x 4", "1,1,2,3,4",
                                 "unit 1 1 2 3", "- 1 1 2 3"})
        expect_load(contents, alone, {bad_data});
}

TEST_F(UnitLoad, ModesFallBackTogetherAndTheNumbersStay)
{
    OWN_PROCESS();
    expect_load("2 1 3 3 3\n", {1, 1, 3, 3, 3},
                {out_of_range("lh_unit_init", "unit_mode", 2, 1), bad_mode});
    expect_load("1 2 3 4 2\n", {1, 1, 3, 4, 2},
                {out_of_range("lh_unit_init", "unit_mode_after_reboot", 2, 1), bad_mode});
    expect_load("0 1 3 4\n", {1, 1, 3, 4, 1},
                {out_of_range("lh_unit_init", "unit_mode", 0, 1), bad_mode});
    expect_load("1 0 3 4\n", {1, 1, 3, 4, 1},
                {out_of_range("lh_unit_init", "unit_mode_after_reboot", 0, 1), bad_mode});
    expect_load("-1 1 3 4\n", {1, 1, 3, 4, 1},
                {out_of_range("lh_unit_init", "unit_mode", minus_one, 1), bad_mode});
}

TEST_F(UnitLoad, NumbersFallBackTogether)
{
    OWN_PROCESS();
    expect_load("1 1 0 1 1\n", alone, {out_of_range("lh_unit_init", "unit_id", 0, 4), bad_id});
    expect_load("1 1 5 3 2\n", alone, {out_of_range("lh_unit_init", "unit_id", 5, 4), bad_id});
    expect_load("1 1 3 0 2\n", alone,
                {out_of_range("lh_unit_init", "unit_id_after_reboot", 0, 4), bad_id});
    expect_load("1 1 3 5\n", alone,
                {out_of_range("lh_unit_init", "unit_id_after_reboot", 5, 4), bad_id});
    expect_load("1 1 -1 3 2\n", alone,
                {out_of_range("lh_unit_init", "unit_id", minus_one, 4), bad_id});
    expect_load("1 1 3 -2147483648 2\n", alone,
                {out_of_range("lh_unit_init", "unit_id_after_reboot", 2147483648, 4), bad_id});
}

TEST_F(UnitLoad, OnlyTheFirstBadFieldOfAGroupIsLogged)
{
    OWN_PROCESS();
    expect_load("7 8 3 4 2\n", {1, 1, 3, 4, 2},
                {out_of_range("lh_unit_init", "unit_mode", 7, 1), bad_mode});
    expect_load("1 1 6 7 2\n", alone, {out_of_range("lh_unit_init", "unit_id", 6, 4), bad_id});
}

TEST_F(UnitLoad, BothGroupsMayFallBack)
{
    OWN_PROCESS();
    expect_load("1 3 2 9 4\n", alone,
                {out_of_range("lh_unit_init", "unit_mode_after_reboot", 3, 1), bad_mode,
                 out_of_range("lh_unit_init", "unit_id_after_reboot", 9, 4), bad_id});
}

TEST_F(UnitLoad, OldNumberIsNotChecked)
{
    OWN_PROCESS();
    expect_load("1 1 2 3 77\n", {1, 1, 2, 3, 77}, {});
    expect_load("1 1 2 3 0\n", {1, 1, 2, 3, 0}, {});
    expect_load("1 1 2 3 -1\n", {1, 1, 2, 3, minus_one}, {});
}

TEST_F(UnitLoad, FileThatCannotBeReadIsInvalidData)
{
    OWN_PROCESS();
    ASSERT_EQ(mkdir(unit_file, 0755), 0);
    expect_load_of_what_is_there(alone, {bad_data});
    ASSERT_EQ(rmdir(unit_file), 0);

    write_file(unit_file, "1 1 2 3 4\n");
    {
        Faults faults;
        faults.fail("fopen", EACCES);
        expect_load_of_what_is_there(alone, {"lh_file_scanf: PTR_IS_NULL: f", bad_data});
    }
    {
        Faults faults;
        faults.fail("__isoc99_vfscanf", EIO);
        expect_load_of_what_is_there(alone, {bad_data});
    }
    expect_load_of_what_is_there({1, 1, 2, 3, 4}, {});
}

TEST_F(UnitLoad, FileThatCannotBeLookedForIsMissing)
{
    OWN_PROCESS();
    write_file(unit_file, "1 1 2 3 4\n");
    Faults faults;
    faults.fail("access", EACCES);
    expect_load_of_what_is_there(alone, {});
}

TEST_F(UnitLoad, FailingCloseIsLoggedAndTheRecordTaken)
{
    OWN_PROCESS();
    write_file(unit_file, "1 1 2 3 4\n");
    Faults faults;
    faults.fail_late("fclose", EIO);
    expect_load_of_what_is_there({1, 1, 2, 3, 4}, {"lh_file_scanf: fclose(f) failed"});
}

namespace {

// A file is words between blanks; those up to the first that is no number count, five at most.
struct plain_load {
    lh_unit_t unit = alone;
    lines_t lines;

    explicit plain_load(const std::vector<std::string> &words)
    {
        std::vector<int32_t> numbers;
        for (const std::string &word : words) {
            if (numbers.size() == 5 || word.find_first_not_of("-0123456789") != std::string::npos)
                break;
            numbers.push_back(std::stoi(word));
        }
        if (numbers.size() < 4) {
            lines.push_back(bad_data);
            return;
        }
        if (numbers.size() == 4)
            numbers.push_back(1);
        if (is_good("unit_mode", numbers[0], 1) && is_good("unit_mode_after_reboot", numbers[1], 1))
            unit.mode = unit.mode_after_reboot = 1;
        else
            lines.push_back(bad_mode);
        if (is_good("unit_id", numbers[2], 4) && is_good("unit_id_after_reboot", numbers[3], 4)) {
            unit.id = numbers[2];
            unit.id_after_reboot = numbers[3];
            unit.old_id_after_reboot = numbers[4];
        } else {
            lines.push_back(bad_id);
        }
    }

  private:
    bool is_good(const char *name, int32_t value, int32_t max)
    {
        if (value >= 1 && value <= max)
            return true;
        lines.push_back(out_of_range("lh_unit_init", name, value, max));
        return false;
    }
};

} // namespace

TEST_F(UnitLoad, RandomFilesAreReadAsThePlainRulesSay)
{
    OWN_PROCESS();
    constexpr unsigned seed = 20240305;
    std::mt19937 random(seed);
    static const char *const usual[] = {"1", "1", "1", "1", "1", "2", "2", "3", "3", "4"};
    static const char *const odd[] = {"0", "5", "-1", "-4", "2147483647", "-2147483648", "x", "n1"};
    static const char *const blanks[] = {" ", " ", "  ", "\n", "\t", "\r\n"};
    for (unsigned round = 0; round < 400; round++) {
        std::vector<std::string> words;
        std::string contents;
        for (unsigned n = random() % 8 != 0 ? 4 + random() % 3 : random() % 4; n > 0; n--) {
            const bool is_mode = words.size() < 2;
            words.push_back(random() % 8 == 0 ? odd[random() % std::size(odd)]
                            : is_mode         ? "1"
                                              : usual[random() % std::size(usual)]);
            contents += words.back() + blanks[random() % std::size(blanks)];
        }
        SCOPED_TRACE("seed " + std::to_string(seed) + " round " + std::to_string(round) + ": " +
                     contents);
        const plain_load expected(words);
        expect_load(contents, expected.unit, expected.lines);
        if (HasFailure())
            break;
    }
}

// The kept record --------------------------------------------------------------------------------

TEST_F(UnitLoad, EveryGetterLoadsTheRecord)
{
    OWN_PROCESS();
    write_file(unit_file, "1 1 3 4 2\n");
    const std::vector<std::function<void()>> getters = {
        [] {
            EXPECT_EQ(kept(), (lh_unit_t{1, 1, 3, 4, 2}));
        },
        [] { EXPECT_EQ(lh_unit_id_get(), 3); },
        [] { EXPECT_STREQ(lh_unit_id_get_str_static(), "3"); },
        [] {
            int id = 0, after = 0;
            EXPECT_EQ(lh_unit_ids_get(&id, &after), 0);
            EXPECT_EQ(id, 3);
            EXPECT_EQ(after, 4);
        },
        [] {
            int after = 0;
            EXPECT_EQ(lh_unit_id_after_reboot_get(&after), 0);
            EXPECT_EQ(after, 4);
        },
    };
    for (const auto &getter : getters) {
        const int status = run_in_child([&getter] {
            getter();
            return 0;
        });
        EXPECT_EQ(status, 0) << "getter " << &getter - getters.data();
    }
}

TEST_F(Unit, FileIsReadOnce)
{
    OWN_PROCESS();
    write_file(unit_file, "1 1 3 4 2\n");
    Faults faults;
    EXPECT_EQ(lh_unit_init(), 0);
    EXPECT_EQ(faults.calls("fopen"), 1u);
    write_file(unit_file, "junk");
    EXPECT_EQ(lh_unit_init(), 0);
    EXPECT_EQ(kept(), (lh_unit_t{1, 1, 3, 4, 2}));
    EXPECT_EQ(lh_unit_id_get(), 3);
    EXPECT_STREQ(lh_unit_id_get_str_static(), "3");
    EXPECT_EQ(faults.calls("fopen"), 1u);
    EXPECT_EQ(faults.calls("access"), 1u);
}

TEST_F(Unit, MissingFileIsNotLookedForAgain)
{
    OWN_PROCESS();
    EXPECT_EQ(lh_unit_id_get(), 1);
    write_file(unit_file, "1 1 3 4 2\n");
    EXPECT_EQ(lh_unit_init(), 0);
    EXPECT_EQ(kept(), alone);
}

TEST_F(Unit, NullPointersAreLoggedBeforeTheFileIsRead)
{
    OWN_PROCESS();
    write_file(unit_file, "junk");
    int id = 77;
    EXPECT_EQ(lh_unit_get(nullptr), -1);
    EXPECT_LINES("lh_unit_get: PTR_IS_NULL: unit");
    EXPECT_EQ(lh_unit_set(nullptr), -1);
    EXPECT_LINES("lh_unit_set: PTR_IS_NULL: unit");
    EXPECT_EQ(lh_unit_ids_get(nullptr, nullptr), -1);
    EXPECT_LINES("lh_unit_ids_get: PTR_IS_NULL: unit_id");
    EXPECT_EQ(lh_unit_ids_get(nullptr, &id), -1);
    EXPECT_LINES("lh_unit_ids_get: PTR_IS_NULL: unit_id");
    EXPECT_EQ(lh_unit_ids_get(&id, nullptr), -1);
    EXPECT_LINES("lh_unit_ids_get: PTR_IS_NULL: unit_id_after_reboot");
    EXPECT_EQ(lh_unit_id_after_reboot_get(nullptr), -1);
    EXPECT_LINES("lh_unit_id_after_reboot_get: PTR_IS_NULL: unit_id_after_reboot");
    EXPECT_EQ(lh_unit_bswap(nullptr), -1);
    EXPECT_LINES("lh_unit_bswap: PTR_IS_NULL: unit");
    EXPECT_EQ(id, 77);
}

// Byte order -------------------------------------------------------------------------------------

TEST_F(Unit, BytesOfEveryFieldAreReversed)
{
    write_file(unit_file, "junk");
    lh_unit_t unit = {0x01020304, 0x11121314, 0xa1b2c3d4, 0x000000ff, 0x80000001};
    EXPECT_EQ(lh_unit_bswap(&unit), 0);
    EXPECT_EQ(unit, (lh_unit_t{0x04030201, 0x14131211, 0xd4c3b2a1, 0xff000000, 0x01000080}));
    EXPECT_EQ(lh_unit_bswap(&unit), 0);
    EXPECT_EQ(unit, (lh_unit_t{0x01020304, 0x11121314, 0xa1b2c3d4, 0x000000ff, 0x80000001}));
}
