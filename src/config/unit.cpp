#include "lh_unit.h"

#include <cstddef>
#include <cstring>
#include <initializer_list>

#include "core/handles.hpp"
#include "core/log.hpp"
#include "lh_file.h"
#include "lh_str.h"

using namespace vyt;

static_assert(offsetof(lh_unit_t, mode) == 0);
static_assert(offsetof(lh_unit_t, mode_after_reboot) == 4);
static_assert(offsetof(lh_unit_t, id) == 8);
static_assert(offsetof(lh_unit_t, id_after_reboot) == 12);
static_assert(offsetof(lh_unit_t, old_id_after_reboot) == 16);
static_assert(sizeof(lh_unit_t) == 20);

namespace {

constexpr const char *unit_path = "/mnt/config/etc/config/vyt/unit";

// Deliberate: one mode and four units are all that this version of the board knows.
constexpr uint32_t mode_max = LH_UNIT_MODE_STANDALONE;
constexpr uint32_t id_max = LH_UNIT_ID_MAX;
constexpr uint32_t first_id = 1;
constexpr lh_unit_t standalone = {LH_UNIT_MODE_STANDALONE, LH_UNIT_MODE_STANDALONE, first_id,
                                  first_id, first_id};

bool is_initialised;
lh_unit_t cached;
char id_text[2];

bool is_in_range(const char *function, uint32_t value, const char *name, uint32_t max)
{
    return !OUT_OF_RANGE_AS(function, value, name, 1, max);
}

// The record in the file, with safe values for what is missing or bad.
lh_unit_t read_unit_file(const char *function)
{
    if (lh_file_is_exist(unit_path) == 0)
        return standalone;
    lh_unit_t unit = standalone;
    int mode, mode_after_reboot, id, id_after_reboot, old_id_after_reboot = first_id;
    const int read = lh_file_scanf(unit_path, "%d %d %d %d %d", &mode, &mode_after_reboot, &id,
                                   &id_after_reboot, &old_id_after_reboot);
    if (read != 4 && read != 5) {
        LOG_ERROR_AS(function,
                     "unit file have invalid data, start in unit mode STANDALONE with unit id %d",
                     static_cast<int>(first_id));
        return standalone;
    }
    if (is_in_range(function, mode, "unit_mode", mode_max) &&
        is_in_range(function, mode_after_reboot, "unit_mode_after_reboot", mode_max)) {
        unit.mode = mode;
        unit.mode_after_reboot = mode_after_reboot;
    } else {
        LOG_ERROR_AS(function, "unit file have invalid mode, start in unit mode STANDALONE");
    }
    if (is_in_range(function, id, "unit_id", id_max) &&
        is_in_range(function, id_after_reboot, "unit_id_after_reboot", id_max)) {
        unit.id = id;
        unit.id_after_reboot = id_after_reboot;
        unit.old_id_after_reboot = old_id_after_reboot;
    } else {
        LOG_ERROR_AS(function, "unit file have invalid id, start with unit id %d",
                     static_cast<int>(first_id));
    }
    return unit;
}

void load_once()
{
    if (!is_initialised)
        lh_unit_init();
}

int write_unit_file(const char *function, const lh_unit_t &unit)
{
    char *text = nullptr;
    if (lh_str_add(&text, "%d %d %d %d %d\n", static_cast<int>(unit.mode),
                   static_cast<int>(unit.mode_after_reboot), static_cast<int>(unit.id),
                   static_cast<int>(unit.id_after_reboot),
                   static_cast<int>(unit.old_id_after_reboot)) != 0) {
        LOG_ERROR_AS(function, "lh_str_add failed");
        return -1;
    }
    const malloc_ptr<char> owned(text);
    if (lh_file_write(unit_path, text, strlen(text)) != 0) {
        LOG_ERROR_AS(function, "lh_file_write failed");
        return -1;
    }
    return 0;
}

} // namespace

int lh_unit_init(void)
{
    if (is_initialised)
        return 0;
    cached = read_unit_file(__func__);
    _lh_snprintf(id_text, sizeof(id_text), "%d", static_cast<int>(cached.id));
    is_initialised = true;
    return 0;
}

int lh_unit_get(lh_unit_t *unit)
{
    if (PTR_IS_NULL(unit))
        return -1;
    load_once();
    *unit = cached;
    return 0;
}

int lh_unit_set(const lh_unit_t *unit)
{
    if (PTR_IS_NULL(unit))
        return -1;
    if (OUT_OF_RANGE(unit->mode, 1, mode_max) ||
        OUT_OF_RANGE(unit->mode_after_reboot, 1, mode_max) || OUT_OF_RANGE(unit->id, 1, id_max) ||
        OUT_OF_RANGE(unit->id_after_reboot, 1, id_max) ||
        OUT_OF_RANGE(unit->old_id_after_reboot, 1, id_max))
        return -1;
    if (write_unit_file(__func__, *unit) != 0)
        return -1;
    // Deliberate: id_text stays what it was at the load, for whoever holds on to the string.
    cached = *unit;
    is_initialised = true;
    return 0;
}

int lh_unit_id_get(void)
{
    load_once();
    return static_cast<int>(cached.id);
}

const char *lh_unit_id_get_str_static(void)
{
    load_once();
    return id_text;
}

int lh_unit_ids_get(int *unit_id, int *unit_id_after_reboot)
{
    if (PTR_IS_NULL(unit_id) || PTR_IS_NULL(unit_id_after_reboot))
        return -1;
    load_once();
    *unit_id = static_cast<int>(cached.id);
    *unit_id_after_reboot = static_cast<int>(cached.id_after_reboot);
    return 0;
}

int lh_unit_ids_set(int unit_id, int unit_id_after_reboot)
{
    load_once();
    lh_unit_t unit = cached;
    unit.id = static_cast<uint32_t>(unit_id);
    unit.id_after_reboot = static_cast<uint32_t>(unit_id_after_reboot);
    unit.old_id_after_reboot = cached.id_after_reboot;
    if (write_unit_file(__func__, unit) != 0)
        return -1;
    // Deliberate: the file keeps the previous number as the old one, the record the new one, for
    // the readers of either who count on it.
    unit.old_id_after_reboot = unit.id_after_reboot;
    cached = unit;
    return 0;
}

int lh_unit_id_after_reboot_get(int *unit_id_after_reboot)
{
    if (PTR_IS_NULL(unit_id_after_reboot))
        return -1;
    load_once();
    *unit_id_after_reboot = static_cast<int>(cached.id_after_reboot);
    return 0;
}

int lh_unit_bswap(lh_unit_t *unit)
{
    if (PTR_IS_NULL(unit))
        return -1;
    for (uint32_t *field : {&unit->mode, &unit->mode_after_reboot, &unit->id,
                            &unit->id_after_reboot, &unit->old_id_after_reboot})
        *field = __builtin_bswap32(*field);
    return 0;
}
