/**
 * @file lh_sysinfo.h
 * The board's processors: CPU 0 is the management CPU, CPUs 1 to 7 are service CPUs, CPUs 8 and
 * above are neither.
 */
#ifndef LH_SYSINFO_H
#define LH_SYSINFO_H

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/**
 * The number of online processors.
 *
 * @return what `get_nprocs` answered, kept from the first answer of at least 1 on; until then every
 *         call asks again and returns the answer as it is.
 * @errno  as `get_nprocs` leaves it; kept once the number is known.
 * @log    none.
 * @blocking the first call may read from `/sys`.
 * @threads any; no lock, racing first calls store the same value.
 * @note Processors that go online or offline later are not noticed.
 */
int lh_sysinfo_get_nprocs(void);

/**
 * Is a CPU a service CPU?
 *
 * @param cpu its number; any value, whether there is such a CPU or not.
 * @return 1 when `cpu` is 1 to 7, else 0.
 * @errno  kept.
 * @log    none.
 * @blocking no.
 * @threads any.
 */
int lh_sysinfo_cpu_role_is_scpu(int cpu);

/**
 * The number of service CPUs among the online processors.
 *
 * @return lh_sysinfo_get_nprocs() - 1, at most 7 and at least 0.
 * @errno  as lh_sysinfo_get_nprocs().
 * @log    none.
 * @blocking as lh_sysinfo_get_nprocs().
 * @threads any.
 */
int lh_sysinfo_get_scpu_count(void);

/**
 * The number of management CPUs.
 *
 * @return 1.
 * @errno  kept.
 * @log    none.
 * @blocking no.
 * @threads any.
 */
int lh_sysinfo_get_mcpu_count(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
