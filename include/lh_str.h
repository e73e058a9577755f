/**
 * @file lh_str.h
 * Strings: editing in place in a bounded buffer, growing heap strings, formatting that reports a
 * text that did not fit, and a string's bytes as hexadecimal digits.
 *
 * Strings are NUL-terminated bytes, and a character is its unsigned byte value whatever the sign of
 * `char` is. Which characters are printable, and which letter belongs to which case, is up to the
 * calling thread's locale. Nothing here keeps state.
 */
#ifndef LH_STR_H
#define LH_STR_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/**
 * Count a byte.
 *
 * @param str the bytes to look at; **not checked for null**.
 * @param len how many of them. A NUL byte is counted over like any other: the count does not stop
 *            there.
 * @param ch  the byte to count.
 * @return how many of the `len` bytes equal `ch`.
 * @errno  kept.
 * @log    none.
 * @blocking no.
 * @threads any.
 */
size_t lh_str_chr_cnt_get(const char *str, size_t len, char ch);

/**
 * Insert a text into a string in place.
 *
 * @param dst     the buffer that holds the string; stays the caller's; null is logged.
 * @param size    its size in bytes.
 * @param pos     where in `dst` to insert: the text comes before the character there. It must not
 *                lie behind the string's terminator, which is **not checked**. Null is logged.
 * @param src     the text; must not overlap the buffer; null is logged. When it does not fit, the
 *                line prints it up to its NUL, also behind `src_len`.
 * @param src_len how many bytes of `src` to insert at most; its first NUL ends it earlier.
 * @return 0, or -1; on failure the buffer is as it was.
 * @errno  kept.
 * @log    `PTR_IS_NULL: dst`, `PTR_IS_NULL: pos` or `PTR_IS_NULL: src`;
 *         `invalid pos: %td < %d` (offset, 0) for a place before the buffer;
 *         `invalid pos: %td > %zu` (offset, `size` - 1) for one behind it;
 *         `'\0' not found` (a backslash and a zero) when `dst` holds no NUL;
 *         `not enough space for insert '%s' into '%s' (%zu + %zu >= %zu)` (`src`, `dst`, the
 *         string's length, the length to insert, `size`).
 * @blocking no.
 * @threads any, one at a time for a buffer.
 * @note Deliberate: **no terminator is written**. The bytes behind the string must be zero already,
 *       as they are in a buffer that was zeroed before it was filled.
 */
int lh_str_insert_str(char *dst, size_t size, char *pos, const char *src, size_t src_len);

/**
 * Insert a printable character into a string in place.
 *
 * @param dst  the buffer that holds the string; stays the caller's; null is logged.
 * @param size its size in bytes.
 * @param pos  where in `dst`, as for lh_str_insert_str(); null is logged.
 * @param ch   the character.
 * @return 0, or -1; on failure the buffer is as it was.
 * @errno  kept.
 * @log    `invalid char: 0x%X` (the character) when it is not printable, before anything else is
 *         looked at; otherwise the lines of lh_str_insert_str(), under that name.
 * @blocking no.
 * @threads any, one at a time for a buffer.
 * @note No terminator is written, as with lh_str_insert_str().
 */
int lh_str_insert_chr(char *dst, size_t size, char *pos, char ch);

/**
 * Build a new string with a text put before every character of a set.
 *
 * `a'b` with a backslash before every quote becomes `a\'b`. Inserted text is not looked at again,
 * so it may contain characters of the set.
 *
 * @param str     the string; stays the caller's; null is logged.
 * @param ins     the text to insert, all of it printable; empty gives a plain copy; null is logged.
 * @param chrs    the characters of the set, all of them printable; null is logged.
 * @param str_new where the new string goes, which the caller releases with free(); null is logged.
 * @return 0, or -1.
 * @errno  ENOMEM when there is no memory.
 * @log    `PTR_IS_NULL: dst` (for `str`), `PTR_IS_NULL: src` (for `ins`), `PTR_IS_NULL: chrs` or
 *         `PTR_IS_NULL: str_new`; `invalid char: 0x%X` for the first character of `ins`, then of
 *         `chrs`, that is not printable; `PTR_IS_NULL: _str_new` when there is no memory.
 * @blocking no.
 * @threads any.
 * @note `*str_new` is **left as it was** on failure, and also on success when no character of `str`
 *       is in the set: set it to null before the call, and where it is still null go on with `str`.
 */
int lh_str_insert_str_before_each_of_chrs(const char *str, const char *ins, const char *chrs,
                                          char **str_new);

/**
 * Replace a character by another one throughout a string.
 *
 * @param str  the string, changed in place; null is logged.
 * @param from the character to replace. NUL changes nothing.
 * @param to   what stands there afterwards. The same character changes nothing; NUL cuts the string
 *             at the first `from`.
 * @errno  kept.
 * @log    `PTR_IS_NULL: str`.
 * @blocking no.
 * @threads any, one at a time for a string.
 */
void lh_str_replace_symbol(char *str, char from, char to);

/**
 * Turn the start of a string into upper case, in place.
 *
 * @param str  the string; null is logged.
 * @param size how many bytes to convert at most; the first NUL ends it earlier.
 * @errno  kept.
 * @log    `PTR_IS_NULL: str`; `IS_EQ check failed: 0 (0 == 0) !!!` when `size` is 0.
 * @blocking no.
 * @threads any, one at a time for a string.
 */
void lh_str_toupper(char *str, size_t size);

/**
 * Turn the start of a string into lower case, in place.
 *
 * @param str  the string; null is logged.
 * @param size how many bytes to convert at most; the first NUL ends it earlier.
 * @errno  kept.
 * @log    `PTR_IS_NULL: str`; `IS_EQ check failed: 0 (0 == 0) !!!` when `size` is 0.
 * @blocking no.
 * @threads any, one at a time for a string.
 */
void lh_str_tolower(char *str, size_t size);

/**
 * Append formatted text to a heap string, which grows.
 *
 * @code
 * char *list = NULL;
 * lh_str_add(&list, "x=%d", 1);
 * lh_str_add(&list, ",y");         // "x=1,y"
 * free(list);
 * @endcode
 *
 * @param dst where the string stands: null, or a string of the C allocator. It may move. The caller
 *            releases it with free(). A null `dst` itself is logged.
 * @param fmt as for printf; null is logged. **No argument may point into the string.**
 * @return 0, or -1; after -1 for another reason than a null argument `*dst` is null.
 * @errno  of the failing call; kept for a null argument.
 * @log    `PTR_IS_NULL: dst` or `PTR_IS_NULL: src` (for `fmt`); `vasprintf failed` when the first
 *         text cannot be made; `PTR_IS_NULL: tmp` when a string cannot grow; `vsnprintf failed`
 *         when the text to append cannot be formatted.
 * @blocking no.
 * @threads any, one at a time for a string.
 * @note Deliberate: on failure the **old text is released too**, so that nobody takes the half of a
 *       text for the whole.
 */
int lh_str_add(char **dst, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

/**
 * Replace a heap string by formatted text.
 *
 * @param dst    where the string stands: null, or a string of the C allocator, which is released.
 *               The caller releases the new one with free(). A null `dst` itself is logged.
 * @param format as for printf; null is logged. The old string may be among the arguments.
 * @return 0, or -1; after -1 for another reason than a null argument `*dst` is null.
 * @errno  of the failing call; kept for a null argument.
 * @log    `PTR_IS_NULL: dst` or `PTR_IS_NULL: format`; `vasprintf failed`.
 * @blocking no.
 * @threads any, one at a time for a string.
 * @note On failure the old string is released too.
 */
int lh_str_vasprintf(char **dst, const char *format, ...) __attribute__((format(printf, 2, 3)));

/**
 * Format into a buffer, where a text that does not fit is a failure.
 *
 * @param buf  the buffer; always terminated afterwards, unless `size` is 0; null is logged.
 * @param size its size in bytes. 0 holds no text at all: nothing is written and the call fails.
 * @param fmt  as for printf; null is logged.
 * @return 0 when the whole text and its terminator fit, else -1; the buffer then holds what did.
 * @errno  of the failing conversion, when the text could not be formatted; else kept.
 * @log    `PTR_IS_NULL: buf` or `PTR_IS_NULL: fmt`; `truncated: '%s'` with what the buffer holds
 *         when the text did not fit or could not be formatted.
 * @blocking no.
 * @threads any, one at a time for a buffer.
 */
int _lh_snprintf(char *buf, size_t size, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));

/**
 * Decode hexadecimal digits into bytes.
 *
 * @param dst where the `n` bytes go; **not checked for null**.
 * @param hex `2 * n` digits of either case, the high one of each byte first; **not checked for
 *            null**.
 * @param n   how many bytes to decode.
 * @return 0, or -1 when a character is no digit (the end of the string is none either). Nothing is
 *         logged. The bytes decoded until then stay written.
 * @errno  kept.
 * @log    none.
 * @blocking no.
 * @threads any.
 */
int hex2bin(unsigned char *dst, const char *hex, size_t n);

/**
 * A string's bytes as hexadecimal digits: two lower-case ones for each byte.
 *
 * @param str the string; null is logged.
 * @return a new string, which the caller releases with free(); null on failure.
 * @errno  ENOMEM when there is no memory.
 * @log    `PTR_IS_NULL: str`; `malloc failed` when there is no memory.
 * @blocking no.
 * @threads any.
 */
char *lh_str_to_hex(const char *str);

/**
 * The string that hexadecimal digits stand for.
 *
 * @param hex digits of either case, two for each byte; an odd last one is ignored; null is logged.
 * @return a new string, which the caller releases with free(); null on failure.
 * @errno  ENOMEM when there is no memory.
 * @log    `PTR_IS_NULL: hex`; `malloc failed` when there is no memory; `hex2bin failed` when a
 *         character is no digit.
 * @blocking no.
 * @threads any.
 * @note A decoded zero byte (`00`) ends the string that C functions see.
 */
char *lh_hex_to_str(const char *hex);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
