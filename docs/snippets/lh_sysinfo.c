/* One worker for each service CPU. */
#include <stdio.h>

#include <lh_sysinfo.h>

static int count_workers(void)
{
    int workers = 0;
    for (int cpu = 0; cpu < lh_sysinfo_get_nprocs(); cpu++)
        workers += lh_sysinfo_cpu_role_is_scpu(cpu);
    return workers;
}

int main(void)
{
    printf("%d\n", count_workers() == lh_sysinfo_get_scpu_count());
    printf("%d management CPU\n", lh_sysinfo_get_mcpu_count());
    return 0;
}

/* Prints:
 * 1
 * 1 management CPU
 */
