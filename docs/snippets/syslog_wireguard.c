/* The debug flags of the WireGuard module: kept across reboots, and put
 * into force. */
#include <stdio.h>

#include <syslog_wireguard.h>

/* At boot: what was saved (or the defaults) into the kernel. */
static int apply_saved(void)
{
    syslog_wireguard_flags_t flags = {0, 0};
    if (syslog_wireguard_set_default_log_config(0) != 0 ||
        syslog_wireguard_read_flags_from_savefile(&flags) != 0)
        return -1;
    return syslog_wireguard_write_flags_to_proc_file(flags);
}

/* On a command: save what is in force, with one flag more. */
static int switch_on(const char *name)
{
    syslog_wireguard_flags_t flags;
    int mnemonic = syslog_wireguard_parse_mnemonic(name);
    if (mnemonic == SYSLOG_WIREGUARD_UNKNOWN ||
        syslog_wireguard_read_flags_from_proc_file(&flags) != 0)
        return -1;
    if (mnemonic == SYSLOG_WIREGUARD_DBG)
        flags.dbg = 1;
    else
        flags.err = 1;
    printf("%s is on\n", syslog_wireguard_stringize_mnemonic(mnemonic));
    return syslog_wireguard_write_flags_to_savefile(&flags, 0);
}

int main(void)
{
    syslog_wireguard_flags_t flags = {0, 0};
    if (apply_saved() != 0 || switch_on("dbg") != 0 ||
        apply_saved() != 0)
        return 1;
    if (syslog_wireguard_read_flags_from_proc_file(&flags) != 0)
        return 1;
    printf("dbg %d, err %d\n", flags.dbg, flags.err);
    return 0;
}

/* Prints:
 * dbg is on
 * dbg 1, err 1
 */
