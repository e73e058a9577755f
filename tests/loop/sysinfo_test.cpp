#include "lh_sysinfo.h"

#include <climits>
#include <sys/sysinfo.h>

#include "support/faults.hpp"
#include "support/log_capture.hpp"
#include "support/process.hpp"

using namespace vyt::test;

class Sysinfo : public LogTest {
  protected:
    // The processors that the C library counts from now on.
    void let_there_be(int count)
    {
        processors = count;
        faults.replace("get_nprocs", reinterpret_cast<void *>(+[] { return processors; }));
    }

    static inline int processors;
    Faults faults;
};

TEST_F(Sysinfo, CountsTheOnlineProcessors)
{
    OWN_PROCESS();
    EXPECT_EQ(lh_sysinfo_get_nprocs(), get_nprocs());
}

TEST_F(Sysinfo, TheFirstCountIsKept)
{
    OWN_PROCESS();
    let_there_be(4);
    EXPECT_EQ(lh_sysinfo_get_nprocs(), 4);
    let_there_be(6);
    EXPECT_EQ(lh_sysinfo_get_nprocs(), 4);
    EXPECT_EQ(lh_sysinfo_get_scpu_count(), 3);
    EXPECT_EQ(faults.calls("get_nprocs"), 1u);
}

TEST_F(Sysinfo, ACountBelowOneIsAskedForAgain)
{
    OWN_PROCESS();
    for (int count : {0, -3, 0}) {
        let_there_be(count);
        EXPECT_EQ(lh_sysinfo_get_nprocs(), count);
    }
    let_there_be(1);
    EXPECT_EQ(lh_sysinfo_get_nprocs(), 1);
    EXPECT_EQ(faults.calls("get_nprocs"), 4u);
    let_there_be(2);
    EXPECT_EQ(lh_sysinfo_get_nprocs(), 1);
    EXPECT_EQ(faults.calls("get_nprocs"), 4u);
}

TEST_F(Sysinfo, ServiceProcessorsAreOneToSeven)
{
    for (int cpu = 1; cpu <= 7; cpu++)
        EXPECT_EQ(lh_sysinfo_cpu_role_is_scpu(cpu), 1) << cpu;
    for (int cpu : {INT_MIN, -1, 0, 8, 9, 15, 257, INT_MAX})
        EXPECT_EQ(lh_sysinfo_cpu_role_is_scpu(cpu), 0) << cpu;
}

TEST_F(Sysinfo, CountsTheServiceProcessors)
{
    const struct {
        int processors, service;
    } cases[] = {{INT_MIN, 0}, {-1, 0}, {0, 0}, {1, 0},  {2, 1},      {4, 3},
                 {7, 6},       {8, 7},  {9, 7}, {16, 7}, {INT_MAX, 7}};
    for (const auto &c : cases) {
        const int status = run_in_child([&] {
            let_there_be(c.processors);
            int service = 0; // the long way
            for (int cpu = 0; cpu < c.processors && cpu < 100; cpu++)
                service += lh_sysinfo_cpu_role_is_scpu(cpu);
            EXPECT_EQ(service, c.service);
            return lh_sysinfo_get_scpu_count();
        });
        EXPECT_EQ(status, c.service) << c.processors << " processors";
    }
}

TEST_F(Sysinfo, ThereIsOneManagementProcessor)
{
    EXPECT_EQ(lh_sysinfo_get_mcpu_count(), 1);
    EXPECT_EQ(faults.calls("get_nprocs"), 0u);
}
