/**
 * @file lh_unit.h
 * Which unit am I: the unit's mode and number, now and after the next reboot.
 *
 * The record is kept in "/mnt/config/etc/config/vyt/unit", five decimal numbers on a line. Each
 * process reads it once, at its first call of lh_unit_init(), of a getter or of lh_unit_ids_set(); an
 * earlier lh_unit_set() takes the place of reading. A missing or bad file gives a unit that stands
 * alone: mode 1, unit 1.
 *
 * The per-process record has no lock: it is loaded and changed by one thread.
 */
#ifndef LH_UNIT_H
#define LH_UNIT_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/** The only mode there is: the unit stands alone. */
#define LH_UNIT_MODE_STANDALONE 1
/** The highest unit number; the lowest is 1. */
#define LH_UNIT_ID_MAX 4

/** The unit record. */
typedef struct lh_unit {
    uint32_t mode;                /**< now: 1, LH_UNIT_MODE_STANDALONE */
    uint32_t mode_after_reboot;   /**< after the next reboot: 1 */
    uint32_t id;                  /**< number now: 1 to 4 */
    uint32_t id_after_reboot;     /**< number after the next reboot: 1 to 4 */
    uint32_t old_id_after_reboot; /**< the previous value of `id_after_reboot`: 1 to 4 */
} lh_unit_t;

/**
 * Load the record, if this process has not done so yet.
 *
 * @return 0, always.
 * @errno  of no meaning: the first call, which loads the record, may change it.
 * @log    for a file that is there but bad: `unit file have invalid data, start in unit mode
 *         STANDALONE with unit id %d` (fewer than four numbers, or not readable; with the line of
 *         lh_file_scanf() then, if any); `OUT_OF_RANGE check failed: %s is really out of range (%lu
 *         %lu %lu) !!!` (`unit_mode`, `unit_mode_after_reboot`, `unit_id` or
 *         `unit_id_after_reboot`; 1, the value, the bound) followed by `unit file have invalid
 *         mode, start in unit mode STANDALONE` or `unit file have invalid id, start with unit id
 *         %d`. Nothing for a missing file.
 * @blocking on the file system, at the first call.
 * @threads one.
 * @note The modes and the numbers fall back independently of each other; of a pair only the first
 *       one that is out of range is logged. A bad file is never rewritten. `old_id_after_reboot` is
 *       taken as it is read; a file of four numbers leaves it 1.
 */
int lh_unit_init(void);

/**
 * The whole record.
 *
 * @param unit where it goes; null is logged, and loads nothing.
 * @return 0, or -1.
 * @errno  of no meaning: the first call, which loads the record, may change it.
 * @log    `PTR_IS_NULL: unit`; the lines of lh_unit_init() at the first call.
 * @blocking as lh_unit_init().
 * @threads one.
 */
int lh_unit_get(lh_unit_t *unit);

/**
 * Check a record, write it to the file, and keep it. The file is not read first.
 *
 * @param unit the record; null is logged.
 * @return 0; -1 when a field is out of range or the file could not be written, and then nothing has
 *         changed for this process. A file that could be opened but not written is left empty.
 * @errno  of the failing call; kept for a null record and for one that is out of range.
 * @log    `PTR_IS_NULL: unit`; `OUT_OF_RANGE check failed: %s is really out of range (%lu %lu %lu)
 *         !!!` (`unit->mode` and so on; 1, the value, the bound) for the first bad field;
 *         `lh_str_add failed` after a line of lh_str_add(); `lh_file_write failed` after a line of
 *         lh_file_write().
 * @blocking on the file system.
 * @threads one.
 * @note A disk that is full, or fails when the file is closed, is not noticed: 0 with an empty file.
 * @note The string of lh_unit_id_get_str_static() is not refreshed, deliberately: it stays what it
 *       was at the first load, and empty when this call came before any load.
 */
int lh_unit_set(const lh_unit_t *unit);

/**
 * The unit's number.
 *
 * @return 1 to 4 (or what lh_unit_ids_set() was given).
 * @errno  of no meaning: the first call, which loads the record, may change it.
 * @log    the lines of lh_unit_init() at the first call.
 * @blocking as lh_unit_init().
 * @threads one.
 */
int lh_unit_id_get(void);

/**
 * The unit's number as it was when the record was loaded, in decimal.
 *
 * @return a static string of one digit, not to be freed; empty when lh_unit_set() came
 *         before any load. **Stale** after lh_unit_set() and lh_unit_ids_set(), which do not
 *         refresh it.
 * @errno  of no meaning: the first call, which loads the record, may change it.
 * @log    the lines of lh_unit_init() at the first call.
 * @blocking as lh_unit_init().
 * @threads one.
 */
const char *lh_unit_id_get_str_static(void);

/**
 * The unit's numbers, now and after the next reboot.
 *
 * @param unit_id              where the number goes; null is logged, and loads nothing.
 * @param unit_id_after_reboot where the one after the next reboot goes; as `unit_id`.
 * @return 0, or -1.
 * @errno  of no meaning: the first call, which loads the record, may change it.
 * @log    `PTR_IS_NULL: unit_id`, `PTR_IS_NULL: unit_id_after_reboot`; the lines of lh_unit_init()
 *         at the first call.
 * @blocking as lh_unit_init().
 * @threads one.
 */
int lh_unit_ids_get(int *unit_id, int *unit_id_after_reboot);

/**
 * Write new numbers to the file and keep them.
 *
 * @param unit_id              the number; **not checked**, give 1 to 4.
 * @param unit_id_after_reboot the number after the next reboot; **not checked**, give 1 to 4.
 * @return 0; -1 when the file could not be written, and then nothing has changed for this process. A
 *         file that could be opened but not written is left empty.
 * @errno  of the failing call.
 * @log    `lh_str_add failed` after a line of lh_str_add(); `lh_file_write failed` after a line of
 *         lh_file_write(); the lines of lh_unit_init() at the first call.
 * @blocking on the file system.
 * @threads one.
 * @note A disk that is full, or fails when the file is closed, is not noticed: 0 with an empty file.
 * @note Deliberate: the file's fifth number is the previous `id_after_reboot`, while the kept record
 *       takes the new one for `old_id_after_reboot`. The string of lh_unit_id_get_str_static() is
 *       not refreshed.
 */
int lh_unit_ids_set(int unit_id, int unit_id_after_reboot);

/**
 * The unit's number after the next reboot.
 *
 * @param unit_id_after_reboot where it goes; null is logged.
 * @return 0, or -1.
 * @errno  of no meaning: the first call, which loads the record, may change it.
 * @log    `PTR_IS_NULL: unit_id_after_reboot`; the lines of lh_unit_init() at the first call.
 * @blocking as lh_unit_init().
 * @threads one.
 */
int lh_unit_id_after_reboot_get(int *unit_id_after_reboot);

/**
 * Reverse the byte order of every field, for a peer of the other byte order.
 *
 * @param unit the record, changed in place; null is logged.
 * @return 0, or -1.
 * @errno  kept.
 * @log    `PTR_IS_NULL: unit`.
 * @blocking no.
 * @threads any.
 */
int lh_unit_bswap(lh_unit_t *unit);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
