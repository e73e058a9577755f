#include "syslog_wireguard.h"

#include <climits>
#include <unistd.h>

#include "config/syslog_wireguard_fixture.hpp"
#include "support/faults.hpp"

using namespace vyt::test;

namespace {

constexpr const char *control = "/proc/wireguard";

class WireguardMnemonic : public LogTest {};
class WireguardSave : public WireguardFile {};
class WireguardDefaults : public WireguardFile {};
class WireguardControl : public WireguardFile {};

} // namespace

// Names ------------------------------------------------------------------------------------------

TEST_F(WireguardMnemonic, NamesAndNumbersBelongTogether)
{
    EXPECT_STREQ(syslog_wireguard_stringize_mnemonic(1), "dbg");
    EXPECT_STREQ(syslog_wireguard_stringize_mnemonic(2), "err");
    EXPECT_EQ(syslog_wireguard_parse_mnemonic("dbg"), 1);
    EXPECT_EQ(syslog_wireguard_parse_mnemonic("err"), 2);
    EXPECT_EQ(SYSLOG_WIREGUARD_UNKNOWN, 0);
    EXPECT_EQ(SYSLOG_WIREGUARD_DBG, 1);
    EXPECT_EQ(SYSLOG_WIREGUARD_ERR, 2);
}

TEST_F(WireguardMnemonic, OtherNumbersHaveNoName)
{
    for (const int id : {0, 3, -1, 257, INT_MAX, INT_MIN})
        EXPECT_EQ(syslog_wireguard_stringize_mnemonic(id), nullptr) << id;
}

TEST_F(WireguardMnemonic, NameIsMatchedWholeAndExactly)
{
    for (const char *name : {"", "db", "dbgx", "DBG", "Err", "dbg ", " err", "1"})
        EXPECT_EQ(syslog_wireguard_parse_mnemonic(name), 0) << name;
}

TEST_F(WireguardMnemonic, NullNameIsLogged)
{
    EXPECT_EQ(syslog_wireguard_parse_mnemonic(nullptr), 0);
    EXPECT_LINES("syslog_wireguard_parse_mnemonic: PTR_IS_NULL: mnemonic");
}

// Writing the save file --------------------------------------------------------------------------

TEST_F(WireguardSave, HoldsBothFlagsInTheirOrder)
{
    save_text("something that was there before and was longer");
    for (const uint8_t dbg : {0, 1})
        for (const uint8_t err : {0, 1}) {
            const flags_t flags = {dbg, err};
            EXPECT_EQ(syslog_wireguard_write_flags_to_savefile(&flags, 0), 0);
            EXPECT_EQ(read_file(save), std::string("dbg = ") + (dbg ? "1" : "0") +
                                           "\nerr = " + (err ? "1" : "0") + "\n");
        }
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(WireguardSave, OnIsExactlyOne)
{
    save_text("");
    for (const uint8_t value : {2, 3, 0x80, 0x81, 0xff}) {
        const flags_t flags = {value, value};
        EXPECT_EQ(syslog_wireguard_write_flags_to_savefile(&flags, 0), 0);
        EXPECT_EQ(read_file(save), "dbg = 0\nerr = 0\n") << int{value};
    }
}

TEST_F(WireguardSave, DefaultsDoNotLookAtTheFlags)
{
    save_text("");
    const flags_t opposite = {1, 0};
    for (const int use_defaults : {1, -1, 256})
        for (const flags_t *flags : {static_cast<const flags_t *>(nullptr), &opposite}) {
            EXPECT_EQ(syslog_wireguard_write_flags_to_savefile(flags, use_defaults), 0);
            EXPECT_EQ(read_file(save), defaults);
            write_file(save, "");
        }
}

TEST_F(WireguardSave, NullFlagsAreLogged)
{
    save_text("before");
    EXPECT_EQ(syslog_wireguard_write_flags_to_savefile(nullptr, 0), -1);
    EXPECT_LINES(line_of(writer, "PTR_IS_NULL: flags"));
    EXPECT_EQ(read_file(save), "before");
}

TEST_F(WireguardSave, FileThatCannotBeOpenedTakesTwoLines)
{
    const flags_t flags = {1, 1};
    const std::vector<std::string> lines = {
        line_of(writer, "PTR_IS_NULL: file"),
        named_line_of(writer, "fopen /mnt/config/etc/config/vyt/debug/wireguard.conf failed")};
    EXPECT_EQ(syslog_wireguard_write_flags_to_savefile(&flags, 0), -1);
    EXPECT_EQ(errno, ENOENT) << "the directory is not made here";
    EXPECT_EQ(take_lines(), lines);

    save_text("before");
    Faults faults;
    faults.fail("fopen", EACCES);
    EXPECT_EQ(syslog_wireguard_write_flags_to_savefile(&flags, 1), -1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(take_lines(), lines);
    EXPECT_EQ(read_file(save), "before");
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_EQ(syslog_wireguard_write_flags_to_savefile(&flags, 0), 0);
}

TEST_F(WireguardSave, WritingAndClosingAreNotLookedAt)
{
    save_text("");
    const flags_t flags = {1, 1};
    Faults faults;
    faults.fail_late("fclose", EIO);
    EXPECT_EQ(syslog_wireguard_write_flags_to_savefile(&flags, 0), 0);
    EXPECT_EQ(read_file(save), "dbg = 1\nerr = 1\n");
    ASSERT_EQ(unlink(save), 0);
    EXPECT_TRUE(faults.happened());
    ASSERT_EQ(symlink("/dev/full", save), 0);
    EXPECT_EQ(syslog_wireguard_write_flags_to_savefile(&flags, 0), 0);
    EXPECT_EQ(open_descriptors(), before);
}

// Default settings -------------------------------------------------------------------------------

TEST_F(WireguardDefaults, AreMadeWithTheirDirectories)
{
    for (const int force : {0, 1}) {
        EXPECT_EQ(syslog_wireguard_set_default_log_config(force), 0);
        EXPECT_EQ(read_file(save), defaults);
        EXPECT_EQ(permissions(save), 0644);
        EXPECT_EQ(permissions(debug_dir), 0755) << "the umask has its say";
        EXPECT_EQ(permissions("/mnt/config/etc"), 0755);
        EXPECT_EQ(open_descriptors(), before);
        std::filesystem::remove_all("/mnt/config");
    }
}

TEST_F(WireguardDefaults, ModesAre0777And0666WithoutAUmask)
{
    expect_full_modes_without_a_umask(syslog_wireguard_set_default_log_config, save);
}

TEST_F(WireguardDefaults, DirectoryThatIsThereIsLeftAsItIs)
{
    std::filesystem::create_directories(debug_dir);
    for (const int force : {0, 1}) {
        ASSERT_EQ(chmod(debug_dir, 0710), 0);
        EXPECT_EQ(syslog_wireguard_set_default_log_config(force), 0);
        EXPECT_EQ(permissions(debug_dir), 0710);
    }
}

TEST_F(WireguardDefaults, FileThatIsThereIsResetOnlyByForce)
{
    for (const std::string contents : {"dbg = 1\n", "junk", ""}) {
        save_text(contents);
        EXPECT_EQ(syslog_wireguard_set_default_log_config(0), 0);
        EXPECT_EQ(read_file(save), contents);
        for (const int force : {1, -1, 256}) {
            EXPECT_EQ(syslog_wireguard_set_default_log_config(force), 0);
            EXPECT_EQ(read_file(save), defaults);
            save_text(contents);
        }
    }
}

TEST_F(WireguardDefaults, DirectoryThatCannotBeMadeIsReported)
{
    expect_obstacle_is_reported(syslog_wireguard_set_default_log_config,
                                named_line_of(setter, "lh_dir_create failed"));
}

TEST_F(WireguardDefaults, EveryFailingStepOfMakingTheDirectoryIsReported)
{
    expect_failing_steps_are_reported(syslog_wireguard_set_default_log_config,
                                      named_line_of(setter, "lh_dir_create failed"));
}

TEST_F(WireguardDefaults, DirectoryThatCannotBeListedButIsThereIsNoFailure)
{
    std::filesystem::create_directories(debug_dir);
    Faults faults;
    faults.fail("opendir", EACCES);
    EXPECT_EQ(syslog_wireguard_set_default_log_config(0), 0);
    EXPECT_TRUE(faults.happened());
    EXPECT_EQ(read_file(save), defaults);
}

TEST_F(WireguardDefaults, FileThatCannotBeLookedForIsReported)
{
    const std::string line =
        named_line_of(setter, "can't open file /mnt/config/etc/config/vyt/debug/wireguard.conf: ");
    std::filesystem::create_directories(debug_dir);
    ASSERT_EQ(symlink(save, save), 0);
    EXPECT_EQ(syslog_wireguard_set_default_log_config(0), 1);
    EXPECT_EQ(errno, ELOOP);
    EXPECT_LINES(line + "Too many levels of symbolic links");
    ASSERT_EQ(unlink(save), 0);

    Faults faults;
    faults.fail("access", EACCES);
    EXPECT_EQ(syslog_wireguard_set_default_log_config(0), 1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_LINES(line + "Permission denied");
    EXPECT_EQ(permissions(save), -1);
    EXPECT_EQ(syslog_wireguard_set_default_log_config(0), 0);
}

TEST_F(WireguardDefaults, FileThatCannotBeCreatedIsReported)
{
    const std::string line = named_line_of(
        setter, "can't create file /mnt/config/etc/config/vyt/debug/wireguard.conf: ");
    std::filesystem::create_directories(save);
    EXPECT_EQ(syslog_wireguard_set_default_log_config(1), 1);
    EXPECT_EQ(errno, EISDIR);
    EXPECT_LINES(line + "Is a directory");
    EXPECT_EQ(syslog_wireguard_set_default_log_config(0), 0) << "something is there";
    std::filesystem::remove(save);

    for (const int force : {0, 1}) {
        Faults faults;
        faults.fail("creat", ENOSPC);
        EXPECT_EQ(syslog_wireguard_set_default_log_config(force), 1);
        EXPECT_EQ(errno, ENOSPC);
        EXPECT_LINES(line + "No space left on device");
    }
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_EQ(syslog_wireguard_set_default_log_config(0), 0);
}

TEST_F(WireguardDefaults, SettingsThatCannotBeWrittenDoNotFailTheCall)
{
    save_text("dbg = 1\n");
    Faults faults;
    faults.fail("fopen", EMFILE);
    EXPECT_EQ(syslog_wireguard_set_default_log_config(1), 0);
    EXPECT_LINES(
        line_of(writer, "PTR_IS_NULL: file"),
        named_line_of(writer, "fopen /mnt/config/etc/config/vyt/debug/wireguard.conf failed"));
    EXPECT_EQ(read_file(save), "") << "it was emptied before";
    EXPECT_EQ(open_descriptors(), before);
}

// The control file -------------------------------------------------------------------------------

TEST_F(WireguardControl, EachFlagIsItsBit)
{
    OWN_PROCESS();
    world.make_proc_writable();
    struct {
        const char *text;
        flags_t flags;
    } const cases[] = {
        {"0x0\n", {0, 0}},        {"0x1\n", {1, 0}},        {"0x10000\n", {0, 1}},
        {"0x10001\n", {1, 1}},    {"0xffffffff\n", {1, 1}}, {"0xfffefffe\n", {0, 0}},
        {"0x2\n", {0, 0}},        {"0x20000\n", {0, 0}},    {"0x00010000\n", {0, 1}},
        {"0xABCDABCD\n", {1, 1}}, {"0x1", {1, 0}},          {"0x10001 and more\n", {1, 1}},
    };
    for (const auto &c : cases) {
        write_file(control, c.text);
        flags_t flags = untouched;
        EXPECT_EQ(syslog_wireguard_read_flags_from_proc_file(&flags), 0) << c.text;
        EXPECT_EQ(flags, c.flags) << c.text;
    }
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(WireguardControl, AnythingElseIsAFailure)
{
    OWN_PROCESS();
    world.make_proc_writable();
    for (const char *text : {"", "\n", "1\n", "10001\n", "0X1\n", " 0x1\n", "\n0x1\n", "0x\n",
                             "0xg\n", "x1\n", "dbg\n"}) {
        write_file(control, text);
        flags_t flags = untouched;
        EXPECT_EQ(syslog_wireguard_read_flags_from_proc_file(&flags), -1) << text;
        EXPECT_EQ(flags, untouched) << text;
    }
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(WireguardControl, ReadingFailsSilently)
{
    OWN_PROCESS();
    world.make_proc_writable();
    flags_t flags = untouched;
    EXPECT_EQ(syslog_wireguard_read_flags_from_proc_file(&flags), -1);
    EXPECT_EQ(errno, ENOENT);
    write_file(control, "0x1\n");
    for (const char *call : {"fopen", "__isoc99_fscanf"}) {
        Faults faults;
        faults.fail(call, EIO);
        EXPECT_EQ(syslog_wireguard_read_flags_from_proc_file(&flags), -1) << call;
        EXPECT_EQ(errno, EIO);
        EXPECT_TRUE(faults.happened());
    }
    EXPECT_EQ(flags, untouched);
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_EQ(syslog_wireguard_read_flags_from_proc_file(&flags), 0);
    EXPECT_EQ(flags, (flags_t{1, 0}));
}

TEST_F(WireguardControl, FlagsAreWrittenAsOneNumber)
{
    OWN_PROCESS();
    world.make_proc_writable();
    struct {
        flags_t flags;
        const char *text;
    } const cases[] = {
        {{0, 0}, "0x0\n"},        {{1, 0}, "0x1\n"},        {{0, 1}, "0x10000\n"},
        {{1, 1}, "0x10001\n"},    {{2, 0xff}, "0x10001\n"}, {{0x80, 0}, "0x1\n"},
        {{0, 0x80}, "0x10000\n"},
    };
    for (const auto &c : cases) {
        write_file(control, "0xffffffff and what else was there\n");
        EXPECT_EQ(syslog_wireguard_write_flags_to_proc_file(c.flags), 0);
        EXPECT_EQ(read_file(control), c.text) << c.flags;
    }
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(WireguardControl, WhatIsWrittenIsRead)
{
    OWN_PROCESS();
    world.make_proc_writable();
    for (const uint8_t dbg : {0, 1})
        for (const uint8_t err : {0, 1}) {
            flags_t flags = untouched;
            EXPECT_EQ(syslog_wireguard_write_flags_to_proc_file({dbg, err}), 0);
            EXPECT_EQ(syslog_wireguard_read_flags_from_proc_file(&flags), 0);
            EXPECT_EQ(flags, (flags_t{dbg, err}));
        }
}

TEST_F(WireguardControl, WritingFailsSilently)
{
    OWN_PROCESS();
    world.make_proc_writable();
    ASSERT_EQ(mkdir(control, 0755), 0);
    EXPECT_EQ(syslog_wireguard_write_flags_to_proc_file({1, 1}), -1);
    EXPECT_EQ(errno, EISDIR);
    ASSERT_EQ(rmdir(control), 0);
    write_file(control, "0x0\n");
    Faults faults;
    faults.fail("fopen", EACCES);
    EXPECT_EQ(syslog_wireguard_write_flags_to_proc_file({1, 1}), -1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(read_file(control), "0x0\n");
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_EQ(syslog_wireguard_write_flags_to_proc_file({1, 1}), 0);
    EXPECT_EQ(read_file(control), "0x10001\n");
}

TEST_F(WireguardControl, WhetherTheKernelTookItIsNotLookedAt)
{
    OWN_PROCESS();
    world.make_proc_writable();
    ASSERT_EQ(symlink("/dev/full", control), 0);
    EXPECT_EQ(syslog_wireguard_write_flags_to_proc_file({1, 1}), 0);
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(WireguardControl, RecordIsTwoBytes)
{
    EXPECT_EQ(sizeof(flags_t), 2u);
    const flags_t flags = {1, 2};
    const auto *bytes = reinterpret_cast<const unsigned char *>(&flags);
    EXPECT_EQ(bytes[0], 1) << "dbg is the first";
    EXPECT_EQ(bytes[1], 2);
}
