/**
 * @file lh_yaml.h
 * Writing a YAML file as a flat series of calls, over libyaml's emitter.
 *
 * The file is one document whose root is a mapping. The daemon owns the libyaml records and the
 * open file; one event record serves every call. The helpers may be mixed with libyaml's own
 * `yaml_emitter_emit`.
 *
 * @code
 * yaml_emitter_t emitter = {0};
 * yaml_event_t event;
 * int rc = yaml_prepare_data(&emitter, &event, file);
 * rc |= yaml_set_val_int(&emitter, &event, "port", 22);          // port: "22"
 * rc |= yaml_set_val_bool_str(&emitter, &event, "enable", true); // enable: yes
 * rc |= yaml_set_var_char(&emitter, &event, "vrfs");             // vrfs:
 * rc |= yaml_sequence_event(&emitter, &event, 1);
 * rc |= yaml_scalar_event_val(&emitter, &event, "blue");         // - "blue"
 * rc |= yaml_sequence_event(&emitter, &event, 0);
 * rc |= yaml_close_data(&emitter, &event, file);
 * rc |= fclose(file);
 * @endcode
 *
 * Keys are plain scalars. Values are double-quoted ("value" form) or plain, depending on the
 * helper. Where a text cannot be written plain without changing its meaning (it holds ": " or a
 * line break, starts with "- " or "[" ...) libyaml quotes it, so that it reads back as it was
 * given. A text with characters other than printable ASCII and line breaks is written between double
 * quotes, with escapes. A key with a line break takes the form `? key` on lines of its own.
 * A plain word keeps whatever meaning a reader gives it: `yes` is a boolean, `22` a number, and a
 * plain value that is empty stands as nothing behind its key, which readers take for null.
 *
 * Failures. Null arguments are logged; everything else that fails gives -1 without a line, and the
 * emitter's own `error` and `problem` tell what libyaml had to say. Text that is too long, that is
 * not UTF-8, or for which there is no memory is refused and leaves the emitter usable. After a
 * failed emit the emitter takes nothing more: every later helper gives -1, yaml_close_data()
 * included, which is to be called all the same. Nothing is rolled back: what was written stays in
 * the file.
 *
 * An emitter belongs to one thread at a time; different emitters are independent.
 */
#ifndef LH_YAML_H
#define LH_YAML_H

#include <stdbool.h>
#include <stdio.h>
#include <yaml.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/**
 * Write a text as a plain scalar: a key, a value or an item.
 *
 * @param emitter a prepared emitter; null is logged.
 * @param event   the caller's event record, overwritten; null is logged.
 * @param str     the text, UTF-8 of any length up to INT_MAX bytes; copied; null is logged.
 * @return 0, or -1.
 * @errno  of the failing allocation or write, if there was one.
 * @log    `PTR_IS_NULL: emitter`; `PTR_IS_NULL: event`; `PTR_IS_NULL: str`.
 * @blocking as writing to the file does.
 * @threads one per emitter.
 */
int yaml_scalar_event_var(yaml_emitter_t *emitter, yaml_event_t *event, const char *str);

/**
 * Write a text as a double-quoted scalar: a value or an item.
 *
 * @param emitter a prepared emitter; null is logged.
 * @param event   the caller's event record, overwritten; null is logged.
 * @param str     the text, UTF-8 of any length up to INT_MAX bytes; copied; null is logged.
 * @return 0, or -1.
 * @errno  of the failing allocation or write, if there was one.
 * @log    `PTR_IS_NULL: emitter`; `PTR_IS_NULL: event`; `PTR_IS_NULL: str`.
 * @blocking as writing to the file does.
 * @threads one per emitter.
 */
int yaml_scalar_event_val(yaml_emitter_t *emitter, yaml_event_t *event, const char *str);

/**
 * Write a lone key as a plain scalar, before a nested mapping or sequence.
 *
 * @param emitter a prepared emitter; null is logged.
 * @param event   the caller's event record, overwritten; null is logged.
 * @param var     the key, UTF-8, at most 511 bytes; copied; null is logged.
 * @return 0, or -1; a longer key is refused without a line.
 * @errno  of the failing allocation or write, if there was one.
 * @log    `PTR_IS_NULL: emitter`; `PTR_IS_NULL: event`; `PTR_IS_NULL: var`.
 * @blocking as writing to the file does.
 * @threads one per emitter.
 * @note libyaml writes a key of more than 128 bytes in the long form `? key`.
 */
int yaml_set_var_char(yaml_emitter_t *emitter, yaml_event_t *event, const char *var);

/**
 * Write a key and a text, the text double-quoted: `var: "val"`.
 *
 * @param emitter a prepared emitter; null is logged.
 * @param event   the caller's event record, overwritten; null is logged.
 * @param var     the key, UTF-8, at most 63 bytes; copied; null is logged.
 * @param val     the text, UTF-8, at most 1023 bytes; copied; null is logged.
 * @return 0, or -1; a longer key or text is refused without a line before anything is written.
 * @errno  of the failing allocation or write, if there was one.
 * @log    `PTR_IS_NULL: emitter`; `PTR_IS_NULL: event`; `PTR_IS_NULL: var`; `PTR_IS_NULL: val`.
 * @blocking as writing to the file does.
 * @threads one per emitter.
 * @note When the text is not UTF-8 or there is no memory for it, the key has been written already
 *       and stands without a value: the caller gives one with another helper, or the file cannot be
 *       closed properly.
 */
int yaml_set_val_char(yaml_emitter_t *emitter, yaml_event_t *event, const char *var,
                      const char *val);

/**
 * Write a key and a number, the number in decimal and double-quoted: `var: "22"`.
 *
 * @param emitter a prepared emitter; null is logged.
 * @param event   the caller's event record, overwritten; null is logged.
 * @param var     the key, UTF-8, at most 63 bytes; copied; null is logged.
 * @param val     the number.
 * @return 0, or -1; a longer key is refused without a line before anything is written.
 * @errno  of the failing allocation or write, if there was one.
 * @log    `PTR_IS_NULL: emitter`; `PTR_IS_NULL: event`; `PTR_IS_NULL: var`.
 * @blocking as writing to the file does.
 * @threads one per emitter.
 * @note Readers see a string, not a number. After a failure the key may stand without a value.
 */
int yaml_set_val_int(yaml_emitter_t *emitter, yaml_event_t *event, const char *var, int val);

/**
 * Write a key and a flag, the flag as a double-quoted digit: `var: "1"` or `var: "0"`.
 *
 * @param emitter a prepared emitter; null is logged.
 * @param event   the caller's event record, overwritten; null is logged.
 * @param var     the key, UTF-8, at most 63 bytes; copied; null is logged.
 * @param val     the flag.
 * @return 0, or -1; a longer key is refused without a line before anything is written.
 * @errno  of the failing allocation or write, if there was one.
 * @log    `PTR_IS_NULL: emitter`; `PTR_IS_NULL: event`; `PTR_IS_NULL: var`.
 * @blocking as writing to the file does.
 * @threads one per emitter.
 * @note Readers see a string, not a boolean; yaml_set_val_bool_str() writes a boolean. After a
 *       failure the key may stand without a value.
 */
int yaml_set_val_bool(yaml_emitter_t *emitter, yaml_event_t *event, const char *var, bool val);

/**
 * Write a key and a text, the text plain: `var: val`.
 *
 * @param emitter a prepared emitter; null is logged.
 * @param event   the caller's event record, overwritten; null is logged.
 * @param var     the key, UTF-8, at most 63 bytes; copied; null is logged.
 * @param val     the text, UTF-8, at most 1023 bytes; copied; null is logged.
 * @return 0, or -1; a longer key or text is refused without a line before anything is written.
 * @errno  of the failing allocation or write, if there was one.
 * @log    `PTR_IS_NULL: emitter`; `PTR_IS_NULL: event`; `PTR_IS_NULL: var`; `PTR_IS_NULL: val`.
 * @blocking as writing to the file does.
 * @threads one per emitter.
 * @note Deliberately plain, where yaml_set_val_char() quotes: a text such as `22`, `yes`, `null` or
 *       none is not a string to the reader. After a failure the key may stand without a value.
 */
int yaml_set_val_str(yaml_emitter_t *emitter, yaml_event_t *event, const char *var,
                     const char *val);

/**
 * Write a key and a flag, the flag as a plain word: `var: yes` or `var: no`.
 *
 * @param emitter a prepared emitter; null is logged.
 * @param event   the caller's event record, overwritten; null is logged.
 * @param var     the key, UTF-8, at most 63 bytes; copied; null is logged.
 * @param val     the flag.
 * @return 0, or -1; a longer key is refused without a line before anything is written.
 * @errno  of the failing allocation or write, if there was one.
 * @log    `PTR_IS_NULL: emitter`; `PTR_IS_NULL: event`; `PTR_IS_NULL: var`.
 * @blocking as writing to the file does.
 * @threads one per emitter.
 * @note After a failure the key may stand without a value.
 */
int yaml_set_val_bool_str(yaml_emitter_t *emitter, yaml_event_t *event, const char *var, bool val);

/**
 * Start or end a mapping.
 *
 * @param emitter a prepared emitter; null is logged.
 * @param event   the caller's event record, overwritten; null is logged.
 * @param start   0 ends the innermost mapping; anything else starts one.
 * @return 0, or -1; where no mapping may start or end this is often found out only by a later call.
 * @errno  of the failing allocation or write, if there was one.
 * @log    `PTR_IS_NULL: emitter`; `PTR_IS_NULL: event`.
 * @blocking as writing to the file does.
 * @threads one per emitter.
 * @note An empty mapping is written as `{}`. The root mapping is started by yaml_prepare_data() and
 *       ended by yaml_close_data().
 */
int yaml_mapping_event(yaml_emitter_t *emitter, yaml_event_t *event, int start);

/**
 * Start or end a sequence, one item a line.
 *
 * @param emitter a prepared emitter; null is logged.
 * @param event   the caller's event record, overwritten; null is logged.
 * @param start   0 ends the innermost sequence; anything else starts one.
 * @return 0, or -1; where no sequence may start or end this is often found out only by a later
 *         call.
 * @errno  of the failing allocation or write, if there was one.
 * @log    `PTR_IS_NULL: emitter`; `PTR_IS_NULL: event`.
 * @blocking as writing to the file does.
 * @threads one per emitter.
 * @note An empty sequence is written as `[]`.
 */
int yaml_sequence_event(yaml_emitter_t *emitter, yaml_event_t *event, int start);

/**
 * Start or end a sequence that is written on one line: `[a, b]`.
 *
 * @param emitter a prepared emitter; null is logged.
 * @param event   the caller's event record, overwritten; null is logged.
 * @param start   0 ends the innermost sequence; anything else starts one.
 * @return 0, or -1; where no sequence may start or end this is often found out only by a later
 *         call.
 * @errno  of the failing allocation or write, if there was one.
 * @log    `PTR_IS_NULL: emitter`; `PTR_IS_NULL: event`.
 * @blocking as writing to the file does.
 * @threads one per emitter.
 * @note Deliberate: in spite of its name it uses libyaml's flow style, not the block style.
 *       Everything inside is in flow style too.
 */
int yaml_block_sequence_event(yaml_emitter_t *emitter, yaml_event_t *event, int start);

/**
 * Set up an emitter that writes to a file, and open the document and its root mapping.
 *
 * The indentation is 4, lines are folded after 65535 columns, document start and end are not
 * marked.
 *
 * @param emitter     the caller's record, overwritten and then owned by the caller until
 *                    yaml_close_data(); null is logged.
 * @param event       the caller's event record, overwritten; null is logged.
 * @param config_file the open file, written from its position on; it stays the caller's and must
 *                    stay open until yaml_close_data(); null is logged.
 * @return 0, or -1.
 * @errno  ENOMEM when there is no memory.
 * @log    `PTR_IS_NULL: emitter`; `PTR_IS_NULL: event`; `PTR_IS_NULL: config_file`.
 * @blocking no: nothing is written to the file yet.
 * @threads one per emitter.
 * @note After -1 for another reason than a null argument the caller still calls yaml_close_data().
 *       A null argument leaves the emitter untouched; a record that was zeroed before may be handed
 *       to yaml_close_data() then, too.
 * @note An emitter that is still open is not closed first: preparing it twice loses what it holds.
 */
int yaml_prepare_data(yaml_emitter_t *emitter, yaml_event_t *event, FILE *config_file);

/**
 * End the root mapping and the document, hand everything to the file, and release the emitter.
 *
 * @param emitter     the emitter in whatever state the calls before left it, or a zeroed record;
 *                    released and zeroed. Null is logged.
 * @param event       the caller's event record, overwritten; null is logged.
 * @param config_file the file given to yaml_prepare_data(). It is only checked, neither written
 *                    through this argument nor closed: the caller closes it. Null is logged.
 * @return 0 when the document is complete and the file took it, else -1. A nested mapping or
 *         sequence that is still open, a key without a value, an emit that failed earlier, and an
 *         emitter that neither yaml_prepare_data() nor `yaml_emitter_open` opened give -1.
 * @errno  of the failing allocation or write, if there was one.
 * @log    `PTR_IS_NULL: emitter`; `PTR_IS_NULL: event`; `PTR_IS_NULL: config_file`; after any of
 *         them the emitter is untouched and still to be closed.
 * @blocking as writing to the file does.
 * @threads one per emitter.
 * @note After a failed emit libyaml takes nothing more, so the end of the document is not written.
 * @note After -1 what had been emitted is in the file all the same, unless writing to it, or the
 *       memory for the event that libyaml was looking ahead to, is what failed. Closing a closed
 *       emitter gives -1 and does nothing.
 * @note 0 says that the C stream took the text. The stream has a buffer of its own: the result of
 *       the caller's `fclose` or `fflush` tells whether it reached the file.
 */
int yaml_close_data(yaml_emitter_t *emitter, yaml_event_t *event, FILE *config_file);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
