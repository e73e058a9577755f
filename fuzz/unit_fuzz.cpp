// The unit file. The input is the file.
//
// The library reads the file once in a process. So that every input is read, the flag that says so
// is cleared before each, in the library's own memory: nothing else of the cache outlives a reading.
#include "lh_unit.h"

#include <filesystem>

#include "fuzz/support/fuzz.hpp"
#include "fuzz/support/own_object.hpp"
#include "fuzz/support/scan.hpp"
#include "support/process.hpp"
#include "support/world.hpp"

using namespace vyt::fuzz;
using vyt::test::read_file;

namespace {

const std::string directory = "/mnt/config/etc/config/vyt";
const std::string path = directory + "/unit";

bool *is_initialised;

struct Unit {
    std::vector<uint32_t> fields = {1, 1, 1, 1, 1};
    std::vector<std::string> lines = {};
};

// Takes these fields when the first two are in range, which the others need not be.
bool take_fields(Unit &unit, const std::vector<uint32_t> &read, size_t first, size_t count,
                 uint32_t max, const std::string &name)
{
    for (size_t i = 0; i < 2; i++) {
        const uint32_t value = read[first + i];
        if (value >= 1 && value <= max)
            continue;
        unit.lines.push_back("lh_unit_init: OUT_OF_RANGE check failed: " + name +
                             (i == 0 ? "" : "_after_reboot") + " is really out of range (1 " +
                             std::to_string(value) + " " + std::to_string(max) + ") !!!");
        return false;
    }
    std::copy_n(read.begin() + static_cast<long>(first), count,
                unit.fields.begin() + static_cast<long>(first));
    return true;
}

Unit plain_unit(const std::string &contents)
{
    Unit unit;
    std::vector<uint32_t> read;
    Scan scan(contents);
    while (read.size() < 5) {
        const auto number = scan.number();
        if (!number.has_value())
            break;
        read.push_back(static_cast<uint32_t>(*number));
    }
    const std::string invalid = "lh_unit_init: unit file have invalid ";
    if (read.size() < 4) {
        unit.lines.push_back(invalid + "data, start in unit mode STANDALONE with unit id 1");
        return unit;
    }
    read.resize(5, 1);
    if (!take_fields(unit, read, 0, 2, 1, "unit_mode"))
        unit.lines.push_back(invalid + "mode, start in unit mode STANDALONE");
    if (!take_fields(unit, read, 2, 3, 4, "unit_id"))
        unit.lines.push_back(invalid + "id, start with unit id 1");
    return unit;
}

std::vector<uint32_t> loaded_fields()
{
    *is_initialised = false;
    lh_unit_t unit = {};
    EXPECT_EQ(lh_unit_get(&unit), 0);
    EXPECT_TRUE(*is_initialised);
    return {unit.mode, unit.mode_after_reboot, unit.id, unit.id_after_reboot,
            unit.old_id_after_reboot};
}

void check_getters(const std::vector<uint32_t> &fields, uint32_t id_in_text)
{
    EXPECT_EQ(lh_unit_id_get(), static_cast<int>(fields[2]));
    EXPECT_EQ(lh_unit_id_get_str_static(), std::to_string(id_in_text));
    int id = 0;
    int id_after_reboot = 0;
    EXPECT_EQ(lh_unit_ids_get(&id, &id_after_reboot), 0);
    EXPECT_EQ(id, static_cast<int>(fields[2]));
    EXPECT_EQ(id_after_reboot, static_cast<int>(fields[3]));
}

// What is written is read back; the fifth number is what the fourth one was.
void check_writing(const std::vector<uint32_t> &fields)
{
    const int id = static_cast<int>(fields[3]);
    const int id_after_reboot = static_cast<int>(fields[2]);
    EXPECT_EQ(lh_unit_ids_set(id, id_after_reboot), 0);
    check_getters({1, 1, fields[3], fields[2]}, fields[2]);
    EXPECT_EQ(loaded_fields(), (std::vector<uint32_t>{1, 1, fields[3], fields[2], fields[3]}));
}

} // namespace

void vyt::fuzz::prepare()
{
    static const vyt::test::World world;
    std::filesystem::create_directories(directory);
    is_initialised = static_cast<bool *>(library_object(
        "_ZN12_GLOBAL__N_114is_initialisedE", reinterpret_cast<const void *>(lh_unit_init)));
}

void vyt::fuzz::run(Input input)
{
    const std::string contents = input.rest();
    vyt::test::write_file(path, contents);

    const Unit expected = plain_unit(contents);
    EXPECT_EQ(loaded_fields(), expected.fields);
    EXPECT_EQ(vyt::test::take_lines(), expected.lines);
    check_getters(expected.fields, expected.fields[2]);
    EXPECT_EQ(read_file(path), contents); // a bad file is not rewritten
    check_writing(expected.fields);
}
