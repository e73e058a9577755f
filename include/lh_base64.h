/**
 * @file lh_base64.h
 * Conversions between bytes, Base64 text and hexadecimal text, for keys and digests that travel as
 * text.
 *
 * The Base64 alphabet is the standard one of RFC 4648 (`A`-`Z`, `a`-`z`, `0`-`9`, `+`, `/`), padded
 * with `=`, without line breaks. Hexadecimal text is written in upper case and read in both.
 *
 * The two converters from text to text work on bits, not on bytes: a Base64 character carries six
 * of them, a hexadecimal digit four, the most significant first.
 *
 * Every result is a new block that the caller releases with free(). Nothing here keeps state.
 */
#ifndef LH_BASE64_H
#define LH_BASE64_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/**
 * Encode bytes as Base64.
 *
 * @param in  the bytes; null is logged, also when `len` is 0.
 * @param len how many.
 * @return a new string, padded to a multiple of four characters and empty for no bytes, which the
 *         caller releases with free(); null on failure.
 * @errno  ENOMEM when there is no memory.
 * @log    `PTR_IS_NULL: in`; `PTR_IS_NULL: out` when there is no memory.
 * @blocking no.
 * @threads any.
 */
char *lh_base64_encode(const unsigned char *in, size_t len);

/**
 * Decode Base64 into bytes.
 *
 * @param in      the text; null is logged.
 * @param out_len where the number of bytes goes; left as it was on failure; may be null.
 * @return a new block with the bytes and **no terminator**, which the caller releases with free();
 *         null on failure. No text at all gives a block too, with 0 bytes in it.
 * @errno  ENOMEM when there is no memory.
 * @log    `PTR_IS_NULL: in`; `PTR_IS_NULL: out` when there is no memory. A text whose length is no
 *         multiple of four, or that holds a character outside the alphabet, fails without a line.
 * @blocking no.
 * @threads any.
 * @note Deliberate: `=` is accepted anywhere. It counts as six zero bits; as the third or fourth
 *       character of its group of four it also drops the group's second or third byte.
 */
unsigned char *lh_base64_decode(const char *in, size_t *out_len);

/**
 * Convert Base64 to hexadecimal digits.
 *
 * @param in  the text; null is logged.
 * @param len its length, of any remainder; the first `=` ends it earlier, and what stands behind
 *            that is not looked at.
 * @return a new string of upper-case digits, which the caller releases with free(); null on
 *         failure.
 * @errno  ENOMEM when there is no memory.
 * @log    `PTR_IS_NULL: in`; `PTR_IS_NULL: out` when there is no memory; `string is not base64` for
 *         a character outside the alphabet (a NUL within `len` is one).
 * @blocking no.
 * @threads any.
 * @note Deliberate: every four bits become a digit, also where they are filler of a padded group,
 *       and fewer are dropped: `AA==` gives `000`, `AAA=` gives `0000`, `/w==` gives `FF0`. Do not
 *       take the result for whole bytes.
 */
char *lh_base64_to_hex(const char *in, size_t len);

/**
 * Convert hexadecimal digits to Base64.
 *
 * @param in  digits of either case; null is logged.
 * @param len how many, odd or even.
 * @return a new string, padded to a multiple of four characters, which the caller releases with
 *         free(); null on failure.
 * @errno  ENOMEM when there is no memory.
 * @log    `PTR_IS_NULL: in`; `PTR_IS_NULL: out` when there is no memory; `string is not HEX` for a
 *         character that is no digit (a NUL within `len` is one).
 * @blocking no.
 * @threads any.
 * @note An odd count is four bits without a byte around them: `0` gives `A===`.
 */
char *lh_hex_to_base64(const char *in, size_t len);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
