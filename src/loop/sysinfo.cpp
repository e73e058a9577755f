#include "lh_sysinfo.h"

#include <algorithm>
#include <atomic>
#include <sys/sysinfo.h>

namespace {

constexpr int first_scpu = 1; // CPU 0 manages the board
constexpr int scpus_end = 8;

std::atomic<int> online; // below 1: not known yet

} // namespace

int lh_sysinfo_get_nprocs(void)
{
    int nprocs = online.load(std::memory_order_relaxed);
    if (nprocs < 1) [[unlikely]] {
        nprocs = get_nprocs();
        online.store(nprocs, std::memory_order_relaxed);
    }
    return nprocs;
}

int lh_sysinfo_cpu_role_is_scpu(int cpu)
{
    return cpu >= first_scpu && cpu < scpus_end ? 1 : 0;
}

int lh_sysinfo_get_scpu_count(void)
{
    return std::clamp(lh_sysinfo_get_nprocs(), first_scpu, scpus_end) - first_scpu;
}

int lh_sysinfo_get_mcpu_count(void)
{
    return 1;
}
