/* The debug settings of the IPsec daemon. */
#include <stdio.h>

#include <lh_file.h>
#include <syslog_ipsec.h>

static const char *check_name(const char *name)
{
    int subsystem = syslog_ipsec_parse_subsystem(name);
    if (subsystem == SYSLOG_IPSEC_UNKNOWN)
        return "no such subsystem";
    return syslog_ipsec_stringize_subsystem(subsystem);
}

static int reset_settings(void)
{
    /* 1 is its failure */
    return syslog_ipsec_set_default_ipsec_log_config(1) == 0 ? 0 : -1;
}

int main(void)
{
    printf("%s\n", check_name("ike"));
    printf("%s\n", check_name("IKE"));
    printf("%d\n", reset_settings());
    printf("%d\n",
           lh_file_is_empty(
               "/mnt/config/etc/config/vyt/debug/subsystems.conf"));
    return 0;
}

/* Prints:
 * ike
 * no such subsystem
 * 0
 * 1
 */
