/**
 * @file syslog_wireguard.h
 * The debug flags of the WireGuard kernel module: saved across reboots, and in its control file.
 */
#ifndef SYSLOG_WIREGUARD_H
#define SYSLOG_WIREGUARD_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/** Number of a flag, which has a short name in the save file. */
enum syslog_wireguard_mnemonic {
    SYSLOG_WIREGUARD_UNKNOWN = 0, /**< no flag; has no name */
    SYSLOG_WIREGUARD_DBG = 1,     /**< "dbg" */
    SYSLOG_WIREGUARD_ERR = 2      /**< "err" */
};

/** The flags, one byte each. */
typedef struct syslog_wireguard_flags {
    uint8_t dbg; /**< debug messages: 1 on, 0 off */
    uint8_t err; /**< error messages: 1 on, 0 off */
} syslog_wireguard_flags_t;

/**
 * The short name of a flag.
 *
 * @param mnemonic one of enum syslog_wireguard_mnemonic.
 * @return "dbg" or "err", a constant; null for any other number.
 * @errno  kept.
 * @log    none.
 * @blocking no.
 * @threads any.
 */
const char *syslog_wireguard_stringize_mnemonic(int mnemonic);

/**
 * The flag of a short name.
 *
 * @param mnemonic the name, whole and in lower case; null is logged.
 * @return one of enum syslog_wireguard_mnemonic; 0 for any other name.
 * @errno  kept.
 * @log    `PTR_IS_NULL: mnemonic`.
 * @blocking no.
 * @threads any.
 */
int syslog_wireguard_parse_mnemonic(const char *mnemonic);

/**
 * Write the save file, "/mnt/config/etc/config/vyt/debug/wireguard.conf": a line "dbg = %d" and a
 * line "err = %d".
 *
 * @param flags        what to save, on meaning exactly 1; null is logged, unless `use_defaults` is
 *                     set: `flags` is not looked at then.
 * @param use_defaults non-zero saves the defaults: dbg off, err on.
 * @return 0, or -1.
 * @errno  of the failing call; kept for a null argument.
 * @log    `PTR_IS_NULL: flags`; `PTR_IS_NULL: file` and then `<%s> fopen %s failed` (this function's
 *         name, path).
 * @blocking on the file system.
 * @threads any; two writers at once mix their lines.
 * @note Whether what was written reached the disk is not looked at. The directory is not created
 *       here, see syslog_wireguard_set_default_log_config().
 */
int syslog_wireguard_write_flags_to_savefile(const syslog_wireguard_flags_t *flags,
                                             int use_defaults);

/**
 * Make sure that the save file exists; with `force`, reset it to the defaults.
 *
 * @param force non-zero resets a file that exists; zero leaves it as it is.
 * @return 0, or **1** (not -1) on failure.
 * @errno  of the failing call.
 * @log    `<%s> lh_dir_create failed` after the line of lh_dir_create();
 *         `<%s> can't open file %s: %s`; `<%s> can't create file %s: %s`; the first %s is this
 *         function's name, the last one strerror; the lines of
 *         syslog_wireguard_write_flags_to_savefile().
 * @blocking on the file system.
 * @threads any.
 * @note Whether the defaults could be written into the file is not looked at, nor whether it could
 *       be closed: 0 may come back with an empty file.
 * @note The directory "/mnt/config/etc/config/vyt/debug" is made with its parents and mode 0777 less
 *       the umask when it is missing; the mode of an existing one is left alone, deliberately unlike
 *       syslog_ipsec_set_default_ipsec_log_config().
 */
int syslog_wireguard_set_default_log_config(int force);

/**
 * Read the flags from the save file, which is reset to the defaults when it cannot be found, for
 * whatever reason.
 *
 * @param flags where they go; null is logged. A flag whose line is missing keeps its value; of
 *              several lines for one flag the last one counts. On is exactly the value 1.
 * @return 0, or -1; the flags of the lines before a bad one have been set then.
 * @errno  of the failing call; kept for a null argument; of no meaning when a line is not
 *         understood.
 * @log    `PTR_IS_NULL: flags`; `can't open file '%s'`; `can't parse line: '%s'` (the line with its
 *         newline); `<%s> invalid mnemonic '%s' in file` (this function's name, the mnemonic); the
 *         lines of syslog_wireguard_set_default_log_config().
 * @blocking on the file system.
 * @threads any.
 * @note A line is scanned as "%4s = %d": white space is free around the "=" but for the one that must
 *       end a mnemonic of less than four characters, what follows the number is not looked at, and
 *       an empty line is a bad one. Of a line of more than 63 characters every piece of 63 is a line.
 */
int syslog_wireguard_read_flags_from_savefile(syslog_wireguard_flags_t *flags);

/**
 * Read the flags that are in force from the kernel module's control file, "/proc/wireguard".
 *
 * @param flags where they go; **not checked for null**.
 * @return 0; -1 when the file cannot be opened or does not start with "0x" and a hexadecimal number.
 *         Nothing is logged.
 * @errno  of the failing call; of no meaning when the file does not start with a number.
 * @log    none.
 * @blocking on the kernel module.
 * @threads any.
 */
int syslog_wireguard_read_flags_from_proc_file(syslog_wireguard_flags_t *flags);

/**
 * Put flags into force: write them to the kernel module's control file, "/proc/wireguard".
 *
 * @param flags the flags; on is anything but 0.
 * @return 0; -1 when the file cannot be opened. Nothing is logged.
 * @errno  of the failing call.
 * @log    none.
 * @blocking on the kernel module.
 * @threads any.
 * @note Whether the kernel took what was written is not looked at. All other bits become 0.
 */
int syslog_wireguard_write_flags_to_proc_file(syslog_wireguard_flags_t flags);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
