// What the tests of the WireGuard flags share: the save file and the lines about it.
#pragma once

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <ostream>
#include <string>

#include "config/debug_dir_fixture.hpp"
#include "syslog_wireguard.h"

inline bool operator==(const syslog_wireguard_flags_t &a, const syslog_wireguard_flags_t &b)
{
    return a.dbg == b.dbg && a.err == b.err;
}

inline std::ostream &operator<<(std::ostream &out, const syslog_wireguard_flags_t &flags)
{
    return out << "{dbg " << int{flags.dbg} << ", err " << int{flags.err} << "}";
}

namespace vyt::test {

using flags_t = syslog_wireguard_flags_t;

inline constexpr const char *save = "/mnt/config/etc/config/vyt/debug/wireguard.conf";
inline constexpr const char *defaults = "dbg = 0\nerr = 1\n";
inline constexpr flags_t untouched = {77, 88};

inline constexpr const char *reader = "syslog_wireguard_read_flags_from_savefile";
inline constexpr const char *writer = "syslog_wireguard_write_flags_to_savefile";
inline constexpr const char *setter = "syslog_wireguard_set_default_log_config";

// A line of the function, and one that names the function a second time.
inline std::string line_of(const std::string &function, const std::string &text)
{
    return function + ": " + text;
}
inline std::string named_line_of(const std::string &function, const std::string &text)
{
    return line_of(function, "<" + function + "> " + text);
}

class WireguardFile : public DebugDirTest {
  protected:
    static void save_text(const std::string &text)
    {
        std::filesystem::create_directories(debug_dir);
        write_file(save, text);
    }
};

} // namespace vyt::test
