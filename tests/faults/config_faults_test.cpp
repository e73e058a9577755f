// Every fault of the unit's record, the debug settings and the reason of a reload.
#include <cerrno>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "config/syslog_wireguard_fixture.hpp"
#include "lh_reload_reason.h"
#include "lh_unit.h"
#include "support/fault_sweep.hpp"
#include "syslog_ipsec.h"

using namespace vyt::test;

namespace {

std::string contents_of(const std::string &path)
{
    return access(path.c_str(), F_OK) == 0 ? shown(read_file(path)) : "no file";
}

std::vector<rule> together(std::vector<rule> rules, const std::vector<rule> &more)
{
    rules.insert(rules.end(), more.begin(), more.end());
    return rules;
}

// The unit's record -------------------------------------------------------------------------------

const char *const unit_file = "/mnt/config/etc/config/vyt/unit";
const std::string bad_data =
    "lh_unit_init: unit file have invalid data, start in unit mode STANDALONE with unit id 1";
const std::string no_unit_stream = "lh_file_scanf: PTR_IS_NULL: f";
const std::string unit_not_closed = "lh_file_scanf: fclose(f) failed";
const std::string not_formatted = "_lh_snprintf: truncated: ''";

// The unit 2, which will be 3 and was to be 4.
void write_record()
{
    std::filesystem::create_directories("/mnt/config/etc/config/vyt");
    write_file(unit_file, "1 1 2 3 4\n");
}

std::string record()
{
    lh_unit_t unit = {};
    EXPECT_EQ(lh_unit_get(&unit), 0);
    std::string text;
    for (const uint32_t field : {unit.mode, unit.mode_after_reboot, unit.id, unit.id_after_reboot,
                                 unit.old_id_after_reboot})
        text += " " + std::to_string(field);
    return text;
}

// What a fault during the load makes of the answer: the unit stands alone, or nothing else changes.
std::vector<rule> faults_of_load(const std::string &loaded, const std::string &alone)
{
    return {fails("access", alone).errno_unpromised(),
            fails("fopen:1", alone, {no_unit_stream, bad_data}).errno_unpromised(),
            fails("__isoc99_vfscanf", alone, {bad_data}).errno_unpromised(),
            fails("fclose:1", loaded, {unit_not_closed}).errno_unpromised()};
}

// The first call of the process loads the record, and whatever that gave stays: the next one gives
// the same without a look at the file.
scenario loading(const char *function, const std::function<std::string()> &call,
                 const std::string &loaded, const std::string &alone,
                 const std::string &without_text)
{
    return {.function = function,
            .body =
                [=](Attempt &a) {
                    static std::string first;
                    const World world;
                    write_record();
                    const std::string answer = a.faulted(call);
                    EXPECT_EQ(read_file(unit_file), "1 1 2 3 4\n");
                    if (first.empty()) {
                        first = answer;
                        return answer;
                    }
                    EXPECT_EQ(a.calls().count("access"), 0u);
                    return answer == first ? loaded : answer;
                },
            .outcome = loaded,
            .faults =
                together(faults_of_load(loaded, alone),
                         {fails("vsnprintf", without_text, {not_formatted}).errno_unpromised()})};
}

scenario loading(const char *function, const std::function<std::string()> &call,
                 const std::string &loaded, const std::string &alone)
{
    return loading(function, call, loaded, alone, loaded);
}

// What the call makes of the unit 2 that will be 3: the record and the file.
std::string changed_record(Attempt &a, const std::function<int()> &call)
{
    const int result = a.faulted(call);
    const std::string outcome = shown(result) + record() + " " + contents_of(unit_file);
    // So that the next call finds what this one found.
    const lh_unit_t before = {1, 1, 2, 3, 4};
    EXPECT_EQ(lh_unit_set(&before), 0);
    return outcome;
}

std::string change_loaded_record(Attempt &a, const std::function<int()> &call)
{
    const World world;
    write_record();
    EXPECT_EQ(record(), " 1 1 2 3 4");
    return changed_record(a, call);
}

// Only the first call of the process loads the record.
std::string load_and_set_ids(Attempt &a)
{
    static bool is_loaded;
    const World world;
    write_record();
    const std::string outcome = changed_record(a, [] { return lh_unit_ids_set(4, 1); });
    EXPECT_EQ(a.calls().count("access") == 0, is_loaded);
    is_loaded = true;
    return outcome;
}

int set_record()
{
    const lh_unit_t unit = {1, 1, 4, 3, 2};
    return lh_unit_set(&unit);
}

// Nothing has changed for the process then; `opening` is the number of the file's opening.
std::vector<rule> faults_of_writing(const std::string &function, const std::string &opening)
{
    const std::string not_written = function + ": lh_file_write failed";
    const std::string wrong_number = "lh_file_write: IS_NE check failed: nmemb (1 != 0) !!!";
    return {fails("vasprintf", "-1 1 1 2 3 4 '1 1 2 3 4\n'",
                  {"lh_str_add: vasprintf failed", function + ": lh_str_add failed"}),
            fails("fopen:" + opening, "-1 1 1 2 3 4 '1 1 2 3 4\n'",
                  {"lh_file_write: fopen '/mnt/config/etc/config/vyt/unit' failed: {error}",
                   not_written}),
            fails("fwrite", "-1 1 1 2 3 4 ''", {wrong_number, not_written}),
            shortened("fwrite", "-1 1 1 2 3 4 ''", {wrong_number, not_written}),
            ignored("fclose:" + opening)};
}

std::string initialised()
{
    const int result = lh_unit_init();
    return shown(result) + record();
}

std::string swapped()
{
    lh_unit_t unit = {1, 1, 2, 3, 4};
    const int result = lh_unit_bswap(&unit);
    return shown(result) + " " + shown(unit.id >> 24);
}

const std::string ids_set = "0 1 1 4 1 1 '1 1 4 1 3\n'";

const std::vector<scenario> units = {
    loading("lh_unit_init", initialised, "0 1 1 2 3 4", "0 1 1 1 1 1"),
    loading("lh_unit_get", record, " 1 1 2 3 4", " 1 1 1 1 1"),
    loading(
        "lh_unit_id_get", [] { return shown(lh_unit_id_get()); }, "2", "1"),
    loading(
        "lh_unit_id_get_str_static", [] { return shown(lh_unit_id_get_str_static()); }, "'2'",
        "'1'", "''"),
    loading(
        "lh_unit_ids_get",
        [] {
            int id = 77;
            int later = 88;
            const int result = lh_unit_ids_get(&id, &later);
            return shown(result) + " " + shown(id) + " " + shown(later);
        },
        "0 2 3", "0 1 1"),
    loading(
        "lh_unit_id_after_reboot_get",
        [] {
            int later = 88;
            const int result = lh_unit_id_after_reboot_get(&later);
            return shown(result) + " " + shown(later);
        },
        "0 3", "0 1"),
    {.function = "lh_unit_set",
     .body = [](Attempt &a) { return change_loaded_record(a, set_record); },
     .outcome = "0 1 1 4 3 2 '1 1 4 3 2\n'",
     .faults = faults_of_writing("lh_unit_set", "1")},
    // Deliberate: the file keeps the previous number as the old one, the record the new one.
    {.function = "lh_unit_ids_set",
     .way = "once the record is loaded",
     .body =
         [](Attempt &a) { return change_loaded_record(a, [] { return lh_unit_ids_set(4, 1); }); },
     .outcome = ids_set,
     .faults = faults_of_writing("lh_unit_ids_set", "1")},
    {.function = "lh_unit_ids_set",
     .way = "as the first call",
     .body = load_and_set_ids,
     .outcome = ids_set,
     .faults = together(together(faults_of_load(ids_set, "0 1 1 4 1 1 '1 1 4 1 1\n'"),
                                 faults_of_writing("lh_unit_ids_set", "2")),
                        {fails("vsnprintf", ids_set, {not_formatted}).errno_unpromised()})},
    simply("lh_unit_bswap", swapped, "0 2"),
};

// The debug directory -----------------------------------------------------------------------------

// A world with the file and these contents in the debug directory, or without the directory.
class DebugWorld {
  public:
    DebugWorld(const std::string &file, const char *contents)
    {
        umask(022);
        if (contents == nullptr)
            return;
        std::filesystem::create_directories(debug_dir);
        write_file(file, contents);
    }

  private:
    World world_;
};

std::string directory_and(const std::string &file)
{
    struct stat st;
    if (stat(debug_dir, &st) != 0)
        return "no directory";
    char mode[16];
    snprintf(mode, sizeof(mode), "%o", st.st_mode & 07777);
    return mode + (", " + contents_of(file));
}

// What makes the directory: it goes on where only a look at a parent failed.
std::vector<rule> faults_of_making(const std::string &outcome, const std::vector<std::string> &then)
{
    std::vector<std::string> no_buffer = {"lh_dir_create: PTR_IS_NULL: buf"};
    std::vector<std::string> not_made = {
        "lh_dir_create: cannot create '/mnt/config/etc/config/vyt/debug': {error}"};
    no_buffer.insert(no_buffer.end(), then.begin(), then.end());
    not_made.insert(not_made.end(), then.begin(), then.end());
    return {fails("strdup", outcome, no_buffer), ignored("stat"),
            fails("mkdir", outcome, not_made)};
}

// IPsec -------------------------------------------------------------------------------------------

const std::string subsystems = "/mnt/config/etc/config/vyt/debug/subsystems.conf";

std::string set_ipsec(Attempt &a, const char *contents, int force)
{
    const DebugWorld world(subsystems, contents);
    const int result = a.faulted([&] { return syslog_ipsec_set_default_ipsec_log_config(force); });
    return shown(result) + ", " + directory_and(subsystems);
}

std::string ipsec(const std::string &text)
{
    return named_line_of("syslog_ipsec_set_default_ipsec_log_config", text);
}

const std::string not_allowed =
    ipsec("can't set permissions to directory /mnt/config/etc/config/vyt/debug : {error}");
const std::string not_found = ipsec("can't open file " + subsystems + ": {error}");
const std::string not_created = ipsec("can't create file " + subsystems + ": {error}");
const std::vector<std::string> no_directory = {"lh_dir_create: PTR_IS_NULL: buf",
                                               ipsec("lh_dir_create failed")};

const std::vector<scenario> ipsec_settings = {
    simply(
        "syslog_ipsec_stringize_subsystem",
        [] { return shown(syslog_ipsec_stringize_subsystem(SYSLOG_IPSEC_IKE)); }, "'ike'"),
    simply(
        "syslog_ipsec_parse_subsystem", [] { return shown(syslog_ipsec_parse_subsystem("ike")); },
        "9"),
    {.function = "syslog_ipsec_set_default_ipsec_log_config",
     .way = "where nothing is",
     .body = [](Attempt &a) { return set_ipsec(a, nullptr, 0); },
     .outcome = "0, 777, ''",
     .faults = together(faults_of_making("1, no directory", {ipsec("lh_dir_create failed")}),
                        {fails("chmod", "1, 755, no file", {not_allowed}),
                         ignored("access").with({ENOENT}),
                         fails("access", "1, 777, no file", {not_found}),
                         fails("creat", "1, 777, no file", {not_created}), ignored("close")})},
    // A file that is said not to be there is created, and so emptied.
    {.function = "syslog_ipsec_set_default_ipsec_log_config",
     .way = "where the file is",
     .body = [](Attempt &a) { return set_ipsec(a, "old", 0); },
     .outcome = "0, 777, 'old'",
     .faults = {fails("strdup", "1, 755, 'old'", no_directory), ignored("stat"),
                fails("chmod", "1, 755, 'old'", {not_allowed}),
                fails("access", "0, 777, ''").with({ENOENT}).errno_unpromised(),
                fails("access", "1, 777, 'old'", {not_found})}},
    {.function = "syslog_ipsec_set_default_ipsec_log_config",
     .way = "forced",
     .body = [](Attempt &a) { return set_ipsec(a, "old", 1); },
     .outcome = "0, 777, ''",
     .faults = {fails("strdup", "1, 755, 'old'", no_directory), ignored("stat"),
                fails("chmod", "1, 755, 'old'", {not_allowed}),
                fails("creat", "1, 777, 'old'", {not_created}), ignored("close")}},
};

// WireGuard ---------------------------------------------------------------------------------------

std::string both(const flags_t &flags)
{
    return shown(flags.dbg) + " " + shown(flags.err);
}

std::string write_save(Attempt &a)
{
    const DebugWorld world(save, "old");
    const flags_t flags = {1, 0};
    const int result =
        a.faulted([&] { return syslog_wireguard_write_flags_to_savefile(&flags, 0); });
    return shown(result) + " " + contents_of(save);
}

std::string set_wireguard(Attempt &a, const char *contents, int force)
{
    const DebugWorld world(save, contents);
    const int result = a.faulted([&] { return syslog_wireguard_set_default_log_config(force); });
    return shown(result) + ", " + directory_and(save);
}

std::string read_save(Attempt &a, const char *contents)
{
    const DebugWorld world(save, contents);
    flags_t flags = untouched;
    const int result = a.faulted([&] { return syslog_wireguard_read_flags_from_savefile(&flags); });
    return shown(result) + " " + both(flags) + ", " + directory_and(save);
}

// A /proc with the control file; made once, as the next World would hide what it stands on.
void make_control(const char *contents)
{
    static World world;
    static const bool is_made = (world.make_proc_writable(), true);
    EXPECT_TRUE(is_made);
    write_file("/proc/wireguard", contents);
}

std::string read_control(Attempt &a)
{
    make_control("0x10000\n");
    flags_t flags = untouched;
    const int result =
        a.faulted([&] { return syslog_wireguard_read_flags_from_proc_file(&flags); });
    return shown(result) + " " + both(flags);
}

std::string write_control(Attempt &a)
{
    make_control("old");
    const int result = a.faulted([] { return syslog_wireguard_write_flags_to_proc_file({1, 1}); });
    return shown(result) + " " + contents_of("/proc/wireguard");
}

const std::string saved = save;
const std::string save_not_made = named_line_of(setter, "lh_dir_create failed");
const std::string save_not_found = named_line_of(setter, "can't open file " + saved + ": {error}");
const std::string save_not_created =
    named_line_of(setter, "can't create file " + saved + ": {error}");
const std::string save_not_read = line_of(reader, "can't open file '" + saved + "'");
const std::vector<std::string> save_not_opened = {
    line_of(writer, "PTR_IS_NULL: file"), named_line_of(writer, "fopen " + saved + " failed")};

// Whether the defaults could be written is not looked at.
std::vector<rule> faults_of_defaults()
{
    return {fails("fopen", "0, 755, ''", save_not_opened).errno_unpromised(),
            fails("fprintf:1", "0, 755, 'err = 1\n'").errno_unpromised(),
            fails("fprintf:2", "0, 755, 'dbg = 0\n'").errno_unpromised(), ignored("fclose"),
            ignored("close")};
}

const std::vector<scenario> wireguard_settings = {
    simply(
        "syslog_wireguard_stringize_mnemonic",
        [] { return shown(syslog_wireguard_stringize_mnemonic(SYSLOG_WIREGUARD_ERR)); }, "'err'"),
    simply(
        "syslog_wireguard_parse_mnemonic",
        [] { return shown(syslog_wireguard_parse_mnemonic("err")); }, "2"),
    {.function = "syslog_wireguard_write_flags_to_savefile",
     .body = write_save,
     .outcome = "0 'dbg = 1\nerr = 0\n'",
     .faults = {fails("fopen", "-1 'old'", save_not_opened),
                fails("fprintf:1", "0 'err = 0\n'").errno_unpromised(),
                fails("fprintf:2", "0 'dbg = 1\n'").errno_unpromised(), ignored("fclose")}},
    {.function = "syslog_wireguard_set_default_log_config",
     .way = "where nothing is",
     .body = [](Attempt &a) { return set_wireguard(a, nullptr, 0); },
     .outcome = "0, 755, 'dbg = 0\nerr = 1\n'",
     .faults = together(
         together(faults_of_making("1, no directory", {save_not_made}), faults_of_defaults()),
         {ignored("opendir"), ignored("access").with({ENOENT}),
          fails("access", "1, 755, no file", {save_not_found}),
          fails("creat", "1, 755, no file", {save_not_created})})},
    // A directory that cannot be listed is made, which finds that it is there.
    {.function = "syslog_wireguard_set_default_log_config",
     .way = "where the file is",
     .body = [](Attempt &a) { return set_wireguard(a, "old", 0); },
     .outcome = "0, 755, 'old'",
     .faults = {ignored("opendir"), ignored("closedir"),
                fails("access", "0, 755, 'dbg = 0\nerr = 1\n'").with({ENOENT}).errno_unpromised(),
                fails("access", "1, 755, 'old'", {save_not_found})}},
    {.function = "syslog_wireguard_set_default_log_config",
     .way = "forced",
     .body = [](Attempt &a) { return set_wireguard(a, "old", 1); },
     .outcome = "0, 755, 'dbg = 0\nerr = 1\n'",
     .faults =
         together(faults_of_defaults(), {ignored("opendir"), ignored("closedir"),
                                         fails("creat", "1, 755, 'old'", {save_not_created})})},
    // A file that cannot be looked for is reset; one that cannot be read on ends there.
    {.function = "syslog_wireguard_read_flags_from_savefile",
     .way = "where it is",
     .body = [](Attempt &a) { return read_save(a, "dbg = 1\nerr = 0\n"); },
     .outcome = "0 1 0, 755, 'dbg = 1\nerr = 0\n'",
     .faults = {fails("access", "0 0 1, 755, 'dbg = 0\nerr = 1\n'").errno_unpromised(),
                fails("fopen", "-1 77 88, 755, 'dbg = 1\nerr = 0\n'", {save_not_read}),
                fails("fgets:1", "0 77 88, 755, 'dbg = 1\nerr = 0\n'").errno_unpromised(),
                fails("fgets:2", "0 1 88, 755, 'dbg = 1\nerr = 0\n'").errno_unpromised(),
                ignored("fgets:3"), ignored("fclose")}},
    {.function = "syslog_wireguard_read_flags_from_savefile",
     .way = "where nothing is",
     .body = [](Attempt &a) { return read_save(a, nullptr); },
     .outcome = "0 0 1, 755, 'dbg = 0\nerr = 1\n'",
     .faults = {ignored("access"), ignored("opendir"), ignored("stat"),
                fails("strdup", "-1 77 88, no directory",
                      {"lh_dir_create: PTR_IS_NULL: buf", save_not_made, save_not_read})
                    .errno_unpromised(),
                fails("mkdir", "-1 77 88, no directory",
                      {"lh_dir_create: cannot create '/mnt/config/etc/config/vyt/debug': {error}",
                       save_not_made, save_not_read})
                    .errno_unpromised(),
                fails("creat", "-1 77 88, 755, no file", {save_not_created, save_not_read})
                    .errno_unpromised(),
                fails("fopen:1", "0 77 88, 755, ''", save_not_opened).errno_unpromised(),
                fails("fprintf:1", "0 77 1, 755, 'err = 1\n'").errno_unpromised(),
                fails("fprintf:2", "0 0 88, 755, 'dbg = 0\n'").errno_unpromised(),
                fails("fopen:2", "-1 77 88, 755, 'dbg = 0\nerr = 1\n'", {save_not_read}),
                fails("fgets:1", "0 77 88, 755, 'dbg = 0\nerr = 1\n'").errno_unpromised(),
                fails("fgets:2", "0 0 88, 755, 'dbg = 0\nerr = 1\n'").errno_unpromised(),
                ignored("fgets:3"), ignored("fclose"), ignored("close")}},
    {.function = "syslog_wireguard_read_flags_from_proc_file",
     .body = read_control,
     .outcome = "0 0 1",
     .faults = {fails("fopen", "-1 77 88"), fails("__isoc99_fscanf", "-1 77 88"),
                ignored("fclose")}},
    // Whether the kernel took what was written is not looked at.
    {.function = "syslog_wireguard_write_flags_to_proc_file",
     .body = write_control,
     .outcome = "0 '0x10001\n'",
     .faults = {fails("fopen", "-1 'old'"), fails("fprintf", "0 ''").errno_unpromised(),
                ignored("fclose")}},
};

// The reason of a reload --------------------------------------------------------------------------

const std::string not_recorded = "lh_reload_reason_write: lh_file_write failed";

std::vector<rule> faults_of_record(const std::string &path, const std::string &before)
{
    const std::string wrong_number = "lh_file_write: IS_NE check failed: nmemb (1 != 0) !!!";
    return {fails("open", "-1 " + before,
                  {"lh_file_create: cannot open file '" + path + "': {error}", not_recorded}),
            fails("close", "-1 ''",
                  {"lh_file_create: cannot close file '" + path + "': {error}", not_recorded}),
            fails("fopen", "-1 ''",
                  {"lh_file_write: fopen '" + path + "' failed: {error}", not_recorded}),
            fails("fwrite", "-1 ''", {wrong_number, not_recorded}),
            shortened("fwrite", "-1 ''", {wrong_number, not_recorded}),
            ignored("fclose")};
}

std::string record_with_time(Attempt &a)
{
    const std::string path = a.path("reason");
    write_file(path, "old");
    const int result = a.faulted([&] { return lh_reload_reason_write("cli", path.c_str(), true); });
    const std::string text = read_file(path);
    const bool has_time = text.compare(0, 7, "cli at ") == 0 && text.size() == 3 + 23;
    return shown(result) + " " + (has_time ? "with the time" : shown(text));
}

// Under a /tmp of its own.
std::string record_by_default(Attempt &a)
{
    World world;
    world.cover_tmp();
    const int result = a.faulted([] { return lh_reload_reason_write("cli", nullptr, false); });
    const std::string text = contents_of("/tmp/" + std::to_string(getpid()));
    EXPECT_EQ(umount("/tmp"), 0);
    return shown(result) + " " + text;
}

const std::vector<scenario> reasons = {
    // A time that cannot be told is left out.
    {.function = "lh_reload_reason_write",
     .way = "with the time",
     .body = record_with_time,
     .outcome = "0 with the time",
     .faults = together(faults_of_record("{dir}/reason", "'old'"),
                        {fails("localtime_r", "0 'cli'").errno_unpromised()})},
    {.function = "lh_reload_reason_write",
     .way = "to the default path",
     .body = record_by_default,
     .outcome = "0 'cli'",
     .faults = together(faults_of_record("/tmp/{pid}", "no file"),
                        {fails("vsnprintf", "-1 no file", {not_formatted})})},
};

const bool swept = register_fault_sweep("FaultsOfUnits", units) &&
                   register_fault_sweep("FaultsOfIpsecSettings", ipsec_settings) &&
                   register_fault_sweep("FaultsOfWireguardSettings", wireguard_settings) &&
                   register_fault_sweep("FaultsOfReloadReasons", reasons);

} // namespace
