/**
 * @file lh_bf.h
 * Bit fields: sets of numbered bits, such as ports or interfaces, with two text forms for storing
 * and logging them.
 *
 * @code
 * lh_bf_t *ports = lh_bf_alloc(NULL, 2);      // bits 0 to 15, all clear
 * lh_bf_bit_set(ports, 0);
 * lh_bf_bit_set(ports, 9);
 * char *text = lh_bf_strdup(ports);           // "1000000001000000"; as hexadecimal "0102"
 * free(text);
 * lh_bf_free(ports);
 * @endcode
 *
 * A record is valid with a non-null `base` and a non-zero `size`. Every function that takes one
 * checks it first and logs the first of these lines that applies:
 *
 *     PTR_IS_NULL: bf
 *     PTR_IS_NULL: (bf)->base
 *     IS_EQ check failed: (bf)->size (0 == 0) !!!
 *
 * A record is used by one thread at a time.
 */
#ifndef LH_BF_H
#define LH_BF_H

#include <stdbool.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/** A bit field. Bit `n` is bit `n % 8` of byte `n / 8`, counted from the least significant one. */
typedef struct lh_bf {
    unsigned char *base; /**< the bits; owned by the record */
    size_t size;         /**< how many bytes: the field has `size * 8` bits */
} lh_bf_t;

/**
 * Make a bit field.
 *
 * @param init the bytes to start with, `size` of them, copied; null: all bits clear.
 * @param size the number of bytes; 0 is logged.
 * @return the bit field, to be released with lh_bf_free(); null on failure.
 * @errno  ENOMEM when there is no memory.
 * @log    `IS_EQ check failed: size (0 == 0) !!!`; `PTR_IS_NULL: bf` when there is no memory for
 *         the record.
 * @blocking no.
 * @threads any.
 * @note Deliberate: when there is memory for the record but **not for its bytes**, a record with a
 *       null `base` comes back and nothing is logged here. Every later call on it fails and logs;
 *       lh_bf_free() too, so that the record itself is never released.
 */
lh_bf_t *lh_bf_alloc(const void *init, size_t size);

/**
 * Release a bit field.
 *
 * @param bf the bit field.
 * @errno  kept.
 * @log    the lines about a record that is not valid.
 * @blocking no.
 * @threads any, one at a time for a record.
 * @note Deliberate: a record that is not valid is logged and **not released**.
 */
void lh_bf_free(lh_bf_t *bf);

/**
 * The number of bits.
 *
 * @param bf the bit field.
 * @return `size * 8`; 0 for a record that is not valid.
 * @errno  kept.
 * @log    the lines about a record that is not valid.
 * @blocking no.
 * @threads any, one at a time for a record.
 */
size_t lh_bf_n_bits_get(const lh_bf_t *bf);

/**
 * Is this bit beyond the field?
 *
 * @param bf      the bit field.
 * @param bit_num the bit.
 * @return true when the field has no such bit, and for a record that is not valid.
 * @errno  kept.
 * @log    the lines about a record that is not valid;
 *         `IS_MT check failed: bit_num (%lu > %lu) !!!` (the bit, the highest bit) when it is beyond
 *         the field.
 * @blocking no.
 * @threads any, one at a time for a record.
 */
bool lh_bf_bit_out_of_range(const lh_bf_t *bf, size_t bit_num);

/**
 * Set a bit.
 *
 * @param bf      the bit field.
 * @param bit_num the bit.
 * @return 0, or -1.
 * @errno  kept.
 * @log    the lines about a record that is not valid; the line of lh_bf_bit_out_of_range(), under
 *         that name.
 * @blocking no.
 * @threads any, one at a time for a record.
 */
int lh_bf_bit_set(lh_bf_t *bf, size_t bit_num);

/**
 * Clear a bit.
 *
 * @param bf      the bit field.
 * @param bit_num the bit.
 * @return 0, or -1.
 * @errno  kept.
 * @log    the lines about a record that is not valid; the line of lh_bf_bit_out_of_range(), under
 *         that name.
 * @blocking no.
 * @threads any, one at a time for a record.
 */
int lh_bf_bit_clear(lh_bf_t *bf, size_t bit_num);

/**
 * Read a bit.
 *
 * @param bf      the bit field.
 * @param bit_num the bit.
 * @param value   where its value goes; left as it was on failure; null is logged.
 * @return 0, or -1.
 * @errno  kept.
 * @log    the lines about a record that is not valid; `PTR_IS_NULL: value`; the line of
 *         lh_bf_bit_out_of_range(), under that name.
 * @blocking no.
 * @threads any, one at a time for a record.
 */
int lh_bf_bit_get(const lh_bf_t *bf, size_t bit_num, bool *value);

/**
 * The size of the bit string of lh_bf_strdup().
 *
 * @param bf the bit field.
 * @return `size * 8 + 1` bytes; 0 for a record that is not valid.
 * @errno  kept.
 * @log    the lines about a record that is not valid.
 * @blocking no.
 * @threads any, one at a time for a record.
 */
size_t lh_bf_str_size_get(const lh_bf_t *bf);

/**
 * The bits as a string of `0` and `1`, bit 0 first.
 *
 * @param bf the bit field.
 * @return a new string, which the caller releases with free(); null on failure.
 * @errno  ENOMEM when there is no memory.
 * @log    the lines about a record that is not valid; `PTR_IS_NULL: str` when there is no memory.
 * @blocking no.
 * @threads any, one at a time for a record.
 */
char *lh_bf_strdup(const lh_bf_t *bf);

/**
 * The size of the hexadecimal string of lh_bf_stringize_hex().
 *
 * @param bf the bit field.
 * @return `size * 2 + 1` bytes; 0 for a record that is not valid.
 * @errno  kept.
 * @log    the lines about a record that is not valid.
 * @blocking no.
 * @threads any, one at a time for a record.
 */
size_t lh_bf_hex_str_size_get(const lh_bf_t *bf);

/**
 * Write the bytes as hexadecimal digits: two lower-case ones for each, byte 0 first.
 *
 * @param bf           the bit field.
 * @param hex_str      where the string goes; null is logged.
 * @param hex_str_size its size in bytes, at least lh_bf_hex_str_size_get().
 * @return 0, or -1 with nothing written.
 * @errno  kept.
 * @log    the lines about a record that is not valid; `PTR_IS_NULL: hex_str`;
 *         `IS_LT check failed: hex_str_size (%lu < %lu) !!!` (the size, the needed size).
 * @blocking no.
 * @threads any, one at a time for a record.
 * @note The digits are in the order of the bytes, each byte's high digit first; the bit string of
 *       lh_bf_strdup() is in the order of the bits.
 */
int lh_bf_stringize_hex(const lh_bf_t *bf, char *hex_str, size_t hex_str_size);

/**
 * How many bytes a bit field needs for lh_bf_hex_str_parse() of so many digits.
 *
 * @param hex_str_len the number of digits.
 * @return half of it, rounded down.
 * @errno  kept.
 * @log    none.
 * @blocking no.
 * @threads any.
 */
size_t lh_bf_size_for_hex_str_get(size_t hex_str_len);

/**
 * Read the first bytes of a bit field from hexadecimal digits, as lh_bf_stringize_hex() writes
 * them. The bytes behind them stay as they were.
 *
 * @param bf          the bit field.
 * @param hex_str     the digits, of either case; null is logged.
 * @param hex_str_len how many: even, not 0, and at most two for each byte of the field.
 * @return 0, or -1. Nothing is changed then, unless a pair could not be read: the bytes before it
 *         keep what was read.
 * @errno  kept.
 * @log    the lines about a record that is not valid; `PTR_IS_NULL: hex_str`;
 *         `IS_EQ check failed: hex_str_len (0 == 0) !!!`;
 *         `IS_NE check failed: 0 (0 != 1) !!!` for an odd number of digits;
 *         `IS_LT check failed: bf->size (%lu < %lu) !!!` (the field's bytes, the needed bytes);
 *         `sscanf failed` for a pair that holds no number.
 * @blocking no.
 * @threads any, one at a time for a record.
 * @note Deliberate: each pair is read as `sscanf` reads `%02x`. So a digit before something else
 *       counts alone (`7z` is 7), and a blank or a sign may stand before a single digit (`-7` is
 *       0xF9).
 */
int lh_bf_hex_str_parse(lh_bf_t *bf, const char *hex_str, size_t hex_str_len);

/**
 * Is any bit set?
 *
 * @param bf the bit field.
 * @return true when a bit is set; false when none is, and for a record that is not valid.
 * @errno  kept.
 * @log    the lines about a record that is not valid.
 * @blocking no.
 * @threads any, one at a time for a record.
 */
bool lh_bf_is_dirty(const lh_bf_t *bf);

/**
 * Count the bits that are set.
 *
 * @param bf the bit field.
 * @return how many; -1 for a record that is not valid.
 * @errno  kept.
 * @log    the lines about a record that is not valid.
 * @blocking no.
 * @threads any, one at a time for a record.
 */
int lh_bf_popcount(const lh_bf_t *bf);

/**
 * Keep only those bits of a field that are also set in another one.
 *
 * @param dst the bit field to change.
 * @param src the other one; may be the same record.
 * @return 0, or -1 with nothing changed.
 * @errno  kept.
 * @log    the lines about a record that is not valid, first for `dst`, then for `src`, which they
 *         name in the place of `bf`: `PTR_IS_NULL: dst`, `PTR_IS_NULL: (src)->base` ...
 * @blocking no.
 * @threads any, one at a time for a record.
 * @note Deliberate: where `src` is shorter, the bytes of `dst` behind its end **stay as they are**;
 *       they are not cleared.
 */
int lh_bf_and(lh_bf_t *dst, const lh_bf_t *src);

/**
 * Invert every bit.
 *
 * @param bf the bit field.
 * @return 0, or -1.
 * @errno  kept.
 * @log    the lines about a record that is not valid.
 * @blocking no.
 * @threads any, one at a time for a record.
 */
int lh_bf_not(lh_bf_t *bf);

/**
 * The largest of some numbers: `_lh_max_int_get(3, 7, 5, -1)` is 7.
 *
 * @param first the first number, also when it is -1.
 * @param ...   further `int` arguments; the first -1 among them **ends the list** and must be there.
 * @return the largest one.
 * @errno  kept.
 * @log    none.
 * @blocking no.
 * @threads any.
 */
int _lh_max_int_get(int first, ...);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
