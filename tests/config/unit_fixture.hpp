// What the tests of the unit record share: its file, its lines, and loads in processes of their own.
#pragma once

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <ostream>

#include "lh_unit.h"
#include "support/log_capture.hpp"
#include "support/process.hpp"
#include "support/world.hpp"

inline bool operator==(const lh_unit_t &a, const lh_unit_t &b)
{
    return memcmp(&a, &b, sizeof(a)) == 0;
}

inline std::ostream &operator<<(std::ostream &out, const lh_unit_t &unit)
{
    return out << "{" << unit.mode << " " << unit.mode_after_reboot << " " << unit.id << " "
               << unit.id_after_reboot << " " << unit.old_id_after_reboot << "}";
}

namespace vyt::test {

using lines_t = std::vector<std::string>;

inline constexpr const char *unit_folder = "/mnt/config/etc/config/vyt";
inline constexpr const char *unit_file = "/mnt/config/etc/config/vyt/unit";
inline constexpr lh_unit_t alone = {1, 1, 1, 1, 1};
inline constexpr uint32_t minus_one = 4294967295;

inline const std::string bad_data = "lh_unit_init: unit file have invalid data, start in unit mode "
                                    "STANDALONE with unit id 1";
inline const std::string bad_mode =
    "lh_unit_init: unit file have invalid mode, start in unit mode STANDALONE";
inline const std::string bad_id = "lh_unit_init: unit file have invalid id, start with unit id 1";

inline std::string out_of_range(const std::string &function, const std::string &name,
                                uint32_t value, uint32_t max)
{
    return function + ": OUT_OF_RANGE check failed: " + name + " is really out of range (1 " +
           std::to_string(value) + " " + std::to_string(max) + ") !!!";
}

inline std::string text_of(const lh_unit_t &unit)
{
    std::string text;
    for (const uint32_t field : {unit.mode, unit.mode_after_reboot, unit.id, unit.id_after_reboot,
                                 unit.old_id_after_reboot})
        text += (text.empty() ? "" : " ") + std::to_string(static_cast<int32_t>(field));
    return text + "\n";
}

inline lh_unit_t kept()
{
    lh_unit_t unit = {};
    EXPECT_EQ(lh_unit_get(&unit), 0);
    return unit;
}

class Unit : public LogTest {
  protected:
    void SetUp() override { std::filesystem::create_directories(unit_folder); }

    World world;
    const std::vector<int> before = open_descriptors();
};

// The record is kept by the process, so each load is made in a child. Nothing must ask for this
// process's pid, which the child would show in its lines.
class UnitLoad : public ColdLogTest {
  protected:
    void SetUp() override { std::filesystem::create_directories(unit_folder); }

    static void expect_load(const std::string &contents, const lh_unit_t &unit,
                            const lines_t &lines)
    {
        write_file(unit_file, contents);
        expect_load_of_what_is_there(unit, lines);
        EXPECT_EQ(read_file(unit_file), contents) << "the file is never rewritten";
    }

    static void expect_load_of_what_is_there(const lh_unit_t &unit, const lines_t &lines)
    {
        const int status = run_in_child([&] {
            const auto descriptors = open_descriptors();
            EXPECT_EQ(lh_unit_init(), 0);
            EXPECT_EQ(take_lines(), lines);
            EXPECT_EQ(kept(), unit);
            EXPECT_EQ(lh_unit_id_get_str_static(), std::to_string(unit.id));
            EXPECT_EQ(open_descriptors(), descriptors);
            return 0;
        });
        EXPECT_EQ(status, 0);
    }

    World world;
};

} // namespace vyt::test
