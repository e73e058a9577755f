#include "syslog_ipsec.h"

#include <cerrno>
#include <climits>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

#include "config/debug_dir_fixture.hpp"

using namespace vyt::test;

namespace {

constexpr const char *conf = "/mnt/config/etc/config/vyt/debug/subsystems.conf";

// By number; 0 has no name.
constexpr const char *names[] = {nullptr, "default", "app", "asn", "cfg", "chd", "dmn",
                                 "enc",   "esp",     "ike", "imc", "imv", "job", "knl",
                                 "lib",   "mgr",     "net", "pts", "tls", "tnc"};

// One of the function's own lines.
std::string own_line(const std::string &text)
{
    const std::string name = "syslog_ipsec_set_default_ipsec_log_config";
    return name + ": <" + name + "> " + text;
}

class IpsecSubsystem : public LogTest {};

class IpsecConfig : public DebugDirTest {};

} // namespace

// Names ------------------------------------------------------------------------------------------

TEST_F(IpsecSubsystem, NamesAndNumbersBelongTogether)
{
    EXPECT_EQ(std::size(names), 20u);
    for (int id = 1; id <= 19; id++) {
        EXPECT_STREQ(syslog_ipsec_stringize_subsystem(id), names[id]);
        EXPECT_EQ(syslog_ipsec_parse_subsystem(std::string(names[id]).c_str()), id);
    }
    EXPECT_EQ(SYSLOG_IPSEC_UNKNOWN, 0);
    EXPECT_EQ(SYSLOG_IPSEC_DEFAULT, 1);
    EXPECT_EQ(SYSLOG_IPSEC_IKE, 9);
    EXPECT_EQ(SYSLOG_IPSEC_TNC, 19);
}

TEST_F(IpsecSubsystem, OtherNumbersHaveNoName)
{
    for (const int id : {0, 20, 21, 255, 257, -1, -19, INT_MAX, INT_MIN})
        EXPECT_EQ(syslog_ipsec_stringize_subsystem(id), nullptr) << id;
}

TEST_F(IpsecSubsystem, NameIsMatchedWholeAndExactly)
{
    for (const char *name : {"IKE", "Ike", "ik", "ikee", "ike ", " ike", "", "unknown", "9",
                             "defaul", "default1", "DEFAULT"})
        EXPECT_EQ(syslog_ipsec_parse_subsystem(name), 0) << name;
    EXPECT_EQ(syslog_ipsec_parse_subsystem("ike"), 9);
}

TEST_F(IpsecSubsystem, NullNameIsLogged)
{
    EXPECT_EQ(syslog_ipsec_parse_subsystem(nullptr), 0);
    EXPECT_LINES("syslog_ipsec_parse_subsystem: PTR_IS_NULL: subsystem");
}

// The file ---------------------------------------------------------------------------------------

TEST_F(IpsecConfig, IsMadeEmptyWithItsDirectories)
{
    for (const int force : {0, 1}) {
        EXPECT_EQ(syslog_ipsec_set_default_ipsec_log_config(force), 0);
        EXPECT_EQ(read_file(conf), "");
        EXPECT_EQ(permissions(conf), 0644);
        EXPECT_EQ(permissions(debug_dir), 0777);
        EXPECT_EQ(permissions("/mnt/config/etc"), 0755) << "the parents follow the umask";
        EXPECT_EQ(open_descriptors(), before);
        std::filesystem::remove_all("/mnt/config");
    }
}

TEST_F(IpsecConfig, ModesAre0777And0666WithoutAUmask)
{
    expect_full_modes_without_a_umask(syslog_ipsec_set_default_ipsec_log_config, conf);
}

TEST_F(IpsecConfig, DirectoryIsOpenToEverybodyWhateverTheUmask)
{
    umask(077);
    EXPECT_EQ(syslog_ipsec_set_default_ipsec_log_config(0), 0);
    EXPECT_EQ(permissions(debug_dir), 0777);
    EXPECT_EQ(permissions("/mnt/config"), 0700);
    EXPECT_EQ(permissions(conf), 0600);
}

TEST_F(IpsecConfig, DirectoryIsOpenedAgainOnEveryCall)
{
    std::filesystem::create_directories(debug_dir);
    for (const int force : {0, 0, 1, 1}) {
        ASSERT_EQ(chmod(debug_dir, 0755), 0);
        EXPECT_EQ(syslog_ipsec_set_default_ipsec_log_config(force), 0);
        EXPECT_EQ(permissions(debug_dir), 0777) << force;
    }
}

TEST_F(IpsecConfig, FileThatIsThereIsEmptiedOnlyByForce)
{
    ASSERT_EQ(syslog_ipsec_set_default_ipsec_log_config(0), 0);
    write_file(conf, "ike = 2\n");
    ASSERT_EQ(chmod(conf, 0640), 0);
    EXPECT_EQ(syslog_ipsec_set_default_ipsec_log_config(0), 0);
    EXPECT_EQ(read_file(conf), "ike = 2\n");
    for (const int force : {1, -1, 256}) {
        write_file(conf, "ike = 2\n");
        EXPECT_EQ(syslog_ipsec_set_default_ipsec_log_config(force), 0);
        EXPECT_EQ(read_file(conf), "") << force;
    }
    EXPECT_EQ(permissions(conf), 0640);
    EXPECT_EQ(open_descriptors(), before);
}

// Failures ---------------------------------------------------------------------------------------

TEST_F(IpsecConfig, DirectoryThatCannotBeMadeIsReported)
{
    expect_obstacle_is_reported(syslog_ipsec_set_default_ipsec_log_config,
                                own_line("lh_dir_create failed"));
}

TEST_F(IpsecConfig, EveryFailingStepOfMakingTheDirectoryIsReported)
{
    expect_failing_steps_are_reported(syslog_ipsec_set_default_ipsec_log_config,
                                      own_line("lh_dir_create failed"));
}

TEST_F(IpsecConfig, EachMissingParentMayFail)
{
    // /mnt is there; config, etc, config, vyt and debug are made.
    for (unsigned nth = 1; nth <= 5; nth++) {
        Faults faults;
        faults.fail("mkdir", ENOSPC, nth);
        EXPECT_EQ(syslog_ipsec_set_default_ipsec_log_config(0), 1) << nth;
        EXPECT_EQ(errno, ENOSPC);
        EXPECT_LINES("lh_dir_create: cannot create '/mnt/config/etc/config/vyt/debug': "
                     "No space left on device",
                     own_line("lh_dir_create failed"));
        EXPECT_EQ(access("/mnt/config", F_OK) == 0, nth > 1) << "what was made stays";
        std::filesystem::remove_all("/mnt/config");
    }
}

TEST_F(IpsecConfig, ModeThatCannotBeSetIsReported)
{
    Faults faults;
    faults.fail("chmod", EPERM);
    EXPECT_EQ(syslog_ipsec_set_default_ipsec_log_config(1), 1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_LINES(own_line("can't set permissions to directory /mnt/config/etc/config/vyt/debug : "
                          "Operation not permitted"));
    EXPECT_EQ(permissions(debug_dir), 0755) << "the directory stays";
    EXPECT_EQ(permissions(conf), -1);
    EXPECT_EQ(syslog_ipsec_set_default_ipsec_log_config(1), 0);
}

TEST_F(IpsecConfig, FileThatCannotBeLookedForIsReported)
{
    std::filesystem::create_directories(debug_dir);
    ASSERT_EQ(symlink(conf, conf), 0);
    EXPECT_EQ(syslog_ipsec_set_default_ipsec_log_config(0), 1);
    EXPECT_EQ(errno, ELOOP);
    EXPECT_LINES(own_line("can't open file /mnt/config/etc/config/vyt/debug/subsystems.conf: "
                          "Too many levels of symbolic links"));
    ASSERT_EQ(unlink(conf), 0);

    Faults faults;
    faults.fail("access", EACCES);
    EXPECT_EQ(syslog_ipsec_set_default_ipsec_log_config(0), 1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_LINES(own_line("can't open file /mnt/config/etc/config/vyt/debug/subsystems.conf: "
                          "Permission denied"));
    EXPECT_EQ(permissions(conf), -1);
    EXPECT_EQ(syslog_ipsec_set_default_ipsec_log_config(0), 0);
}

TEST_F(IpsecConfig, ForceDoesNotLookForTheFile)
{
    Faults faults;
    EXPECT_EQ(syslog_ipsec_set_default_ipsec_log_config(1), 0);
    EXPECT_EQ(faults.calls("access"), 0u);
}

TEST_F(IpsecConfig, FileThatCannotBeCreatedIsReported)
{
    std::filesystem::create_directories(conf);
    EXPECT_EQ(syslog_ipsec_set_default_ipsec_log_config(1), 1);
    EXPECT_EQ(errno, EISDIR);
    EXPECT_LINES(own_line("can't create file /mnt/config/etc/config/vyt/debug/subsystems.conf: "
                          "Is a directory"));
    EXPECT_EQ(syslog_ipsec_set_default_ipsec_log_config(0), 0) << "something is there";
    std::filesystem::remove(conf);

    for (const int force : {0, 1}) {
        Faults faults;
        faults.fail("creat", ENOSPC);
        EXPECT_EQ(syslog_ipsec_set_default_ipsec_log_config(force), 1);
        EXPECT_EQ(errno, ENOSPC);
        EXPECT_LINES(own_line("can't create file /mnt/config/etc/config/vyt/debug/subsystems.conf: "
                              "No space left on device"));
    }
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_EQ(syslog_ipsec_set_default_ipsec_log_config(0), 0);
    EXPECT_EQ(permissions(conf), 0644);
}
