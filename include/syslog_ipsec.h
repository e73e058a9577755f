/**
 * @file syslog_ipsec.h
 * The logging subsystems of the IPsec daemon, and the file that holds their debug settings.
 */
#ifndef SYSLOG_IPSEC_H
#define SYSLOG_IPSEC_H

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/** A logging subsystem of the IPsec daemon. */
enum syslog_ipsec_subsystem {
    SYSLOG_IPSEC_UNKNOWN = 0, /**< no subsystem; has no name */
    SYSLOG_IPSEC_DEFAULT = 1, /**< "default" */
    SYSLOG_IPSEC_APP = 2,     /**< "app" */
    SYSLOG_IPSEC_ASN = 3,     /**< "asn" */
    SYSLOG_IPSEC_CFG = 4,     /**< "cfg" */
    SYSLOG_IPSEC_CHD = 5,     /**< "chd" */
    SYSLOG_IPSEC_DMN = 6,     /**< "dmn" */
    SYSLOG_IPSEC_ENC = 7,     /**< "enc" */
    SYSLOG_IPSEC_ESP = 8,     /**< "esp" */
    SYSLOG_IPSEC_IKE = 9,     /**< "ike" */
    SYSLOG_IPSEC_IMC = 10,    /**< "imc" */
    SYSLOG_IPSEC_IMV = 11,    /**< "imv" */
    SYSLOG_IPSEC_JOB = 12,    /**< "job" */
    SYSLOG_IPSEC_KNL = 13,    /**< "knl" */
    SYSLOG_IPSEC_LIB = 14,    /**< "lib" */
    SYSLOG_IPSEC_MGR = 15,    /**< "mgr" */
    SYSLOG_IPSEC_NET = 16,    /**< "net" */
    SYSLOG_IPSEC_PTS = 17,    /**< "pts" */
    SYSLOG_IPSEC_TLS = 18,    /**< "tls" */
    SYSLOG_IPSEC_TNC = 19     /**< "tnc" */
};

/**
 * The name of a subsystem.
 *
 * @param subsystem one of enum syslog_ipsec_subsystem.
 * @return the name, a constant; null for any other number, and for 0.
 * @errno  kept.
 * @log    none.
 * @blocking no.
 * @threads any.
 */
const char *syslog_ipsec_stringize_subsystem(int subsystem);

/**
 * The subsystem of a name.
 *
 * @param subsystem the name, whole and in lower case; null is logged.
 * @return one of enum syslog_ipsec_subsystem; 0 when there is none of that name.
 * @errno  kept.
 * @log    `PTR_IS_NULL: subsystem`.
 * @blocking no.
 * @threads any.
 */
int syslog_ipsec_parse_subsystem(const char *subsystem);

/**
 * Make sure that the file of debug settings, "/mnt/config/etc/config/vyt/debug/subsystems.conf",
 * exists; with `force`, empty it.
 *
 * The directory is made with its parents when it is missing, and given mode 0777 on every call.
 *
 * @param force non-zero empties a file that exists; zero leaves it as it is.
 * @return 0, or **1** (not -1) on failure.
 * @errno  of the failing call.
 * @log    `<%s> lh_dir_create failed` after the line of lh_dir_create();
 *         `<%s> can't set permissions to directory %s : %s`; `<%s> can't create file %s: %s`;
 *         `<%s> can't open file %s: %s`; the first %s is this function's name, the last one
 *         strerror.
 * @blocking on the file system.
 * @threads any.
 * @note Everybody may write into the directory.
 * @note A file that was made and cannot be closed cleanly counts as made.
 */
int syslog_ipsec_set_default_ipsec_log_config(int force);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
