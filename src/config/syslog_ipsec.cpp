#include "syslog_ipsec.h"

#include <cerrno>
#include <cstring>
#include <iterator>
#include <sys/stat.h>
#include <unistd.h>

#include "config/debug_dir.hpp"
#include "core/log.hpp"

using namespace vyt;

namespace {

constexpr const char *conf_path = "/mnt/config/etc/config/vyt/debug/subsystems.conf";

// By number, from 1.
constexpr const char *names[] = {"default", "app", "asn", "cfg", "chd", "dmn", "enc",
                                 "esp",     "ike", "imc", "imv", "job", "knl", "lib",
                                 "mgr",     "net", "pts", "tls", "tnc"};
static_assert(std::size(names) == SYSLOG_IPSEC_TNC);

} // namespace

const char *syslog_ipsec_stringize_subsystem(int subsystem)
{
    if (subsystem < SYSLOG_IPSEC_DEFAULT || subsystem > SYSLOG_IPSEC_TNC)
        return nullptr;
    return names[subsystem - SYSLOG_IPSEC_DEFAULT];
}

int syslog_ipsec_parse_subsystem(const char *subsystem)
{
    if (PTR_IS_NULL(subsystem))
        return SYSLOG_IPSEC_UNKNOWN;
    for (int id = SYSLOG_IPSEC_DEFAULT; id <= SYSLOG_IPSEC_TNC; id++) {
        if (strcmp(syslog_ipsec_stringize_subsystem(id), subsystem) == 0)
            return id;
    }
    return SYSLOG_IPSEC_UNKNOWN;
}

int syslog_ipsec_set_default_ipsec_log_config(int force)
{
    if (create_debug_config_dir() != 0) {
        LOG_ERROR("<%s> lh_dir_create failed", __func__);
        return 1;
    }
    // So that the umask has no say: every daemon's user writes here.
    if (chmod(debug_config_dir, 0777) != 0) {
        LOG_ERROR("<%s> can't set permissions to directory %s : %s", __func__, debug_config_dir,
                  strerror(errno));
        return 1;
    }
    if (force == 0) {
        if (access(conf_path, F_OK) == 0)
            return 0;
        if (errno != ENOENT) {
            LOG_ERROR("<%s> can't open file %s: %s", __func__, conf_path, strerror(errno));
            return 1;
        }
    }
    if (!create_empty_file(conf_path)) {
        LOG_ERROR("<%s> can't create file %s: %s", __func__, conf_path, strerror(errno));
        return 1;
    }
    return 0;
}
