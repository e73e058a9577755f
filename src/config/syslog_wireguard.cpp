#include "syslog_wireguard.h"

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>

#include "config/debug_dir.hpp"
#include "core/log.hpp"
#include "lh_file.h"

using namespace vyt;

static_assert(offsetof(syslog_wireguard_flags_t, dbg) == 0);
static_assert(offsetof(syslog_wireguard_flags_t, err) == 1);
static_assert(sizeof(syslog_wireguard_flags_t) == 2);

namespace {

constexpr const char *save_path = "/mnt/config/etc/config/vyt/debug/wireguard.conf";
constexpr const char *control_path = "/proc/wireguard";

constexpr syslog_wireguard_flags_t default_flags = {.dbg = 0, .err = 1};

// The flags' bits in the control file.
constexpr unsigned dbg_bit = 0;
constexpr unsigned err_bit = 16;

constexpr size_t line_size = 64;
constexpr size_t mnemonic_size = 4 + 1;

} // namespace

const char *syslog_wireguard_stringize_mnemonic(int mnemonic)
{
    switch (mnemonic) {
    case SYSLOG_WIREGUARD_DBG:
        return "dbg";
    case SYSLOG_WIREGUARD_ERR:
        return "err";
    default:
        return nullptr;
    }
}

int syslog_wireguard_parse_mnemonic(const char *mnemonic)
{
    if (PTR_IS_NULL(mnemonic))
        return SYSLOG_WIREGUARD_UNKNOWN;
    for (int id : {SYSLOG_WIREGUARD_DBG, SYSLOG_WIREGUARD_ERR}) {
        if (strcmp(syslog_wireguard_stringize_mnemonic(id), mnemonic) == 0)
            return id;
    }
    return SYSLOG_WIREGUARD_UNKNOWN;
}

int syslog_wireguard_write_flags_to_savefile(const syslog_wireguard_flags_t *flags,
                                             int use_defaults)
{
    if (use_defaults != 0)
        flags = &default_flags;
    if (PTR_IS_NULL(flags))
        return -1;
    const unique_file owned(fopen(save_path, "w"));
    FILE *file = owned.get();
    if (PTR_IS_NULL(file)) {
        LOG_ERROR("<%s> fopen %s failed", __func__, save_path);
        return -1;
    }
    fprintf(file, "dbg = %d\n", flags->dbg == 1);
    fprintf(file, "err = %d\n", flags->err == 1);
    return 0;
}

int syslog_wireguard_set_default_log_config(int force)
{
    // Deliberate: no chmod follows. A directory that the administrator has closed stays closed.
    if (lh_dir_is_exist(debug_config_dir) == 0 && create_debug_config_dir() != 0) {
        LOG_ERROR("<%s> lh_dir_create failed", __func__);
        return 1;
    }
    if (force == 0) {
        if (lh_file_is_exist(save_path) != 0)
            return 0;
        if (errno != ENOENT) {
            LOG_ERROR("<%s> can't open file %s: %s", __func__, save_path, strerror(errno));
            return 1;
        }
    }
    if (!create_empty_file(save_path)) {
        LOG_ERROR("<%s> can't create file %s: %s", __func__, save_path, strerror(errno));
        return 1;
    }
    syslog_wireguard_write_flags_to_savefile(nullptr, 1);
    return 0;
}

int syslog_wireguard_read_flags_from_savefile(syslog_wireguard_flags_t *flags)
{
    if (PTR_IS_NULL(flags))
        return -1;
    if (lh_file_is_exist(save_path) == 0)
        syslog_wireguard_set_default_log_config(1);
    const unique_file file(fopen(save_path, "r"));
    if (!file) {
        LOG_ERROR("can't open file '%s'", save_path);
        return -1;
    }
    char line[line_size];
    while (fgets(line, sizeof(line), file.get()) != nullptr) {
        char mnemonic[mnemonic_size];
        int value;
        if (sscanf(line, "%4s = %d", mnemonic, &value) != 2) {
            LOG_ERROR("can't parse line: '%s'", line);
            return -1;
        }
        switch (syslog_wireguard_parse_mnemonic(mnemonic)) {
        case SYSLOG_WIREGUARD_DBG:
            flags->dbg = value == 1;
            break;
        case SYSLOG_WIREGUARD_ERR:
            flags->err = value == 1;
            break;
        default:
            LOG_ERROR("<%s> invalid mnemonic '%s' in file", __func__, mnemonic);
            return -1;
        }
    }
    return 0;
}

int syslog_wireguard_read_flags_from_proc_file(syslog_wireguard_flags_t *flags)
{
    const unique_file file(fopen(control_path, "r"));
    unsigned bits;
    if (!file || fscanf(file.get(), "0x%x", &bits) != 1)
        return -1;
    flags->dbg = bits >> dbg_bit & 1;
    flags->err = bits >> err_bit & 1;
    return 0;
}

int syslog_wireguard_write_flags_to_proc_file(syslog_wireguard_flags_t flags)
{
    const unique_file file(fopen(control_path, "w"));
    if (!file)
        return -1;
    const unsigned bits = unsigned{flags.dbg != 0} << dbg_bit | unsigned{flags.err != 0} << err_bit;
    fprintf(file.get(), "0x%x\n", bits);
    return 0;
}
