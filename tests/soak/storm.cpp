#include "soak/soak.hpp"

#include <atomic>
#include <csignal>
#include <new>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace vyt::soak {

struct Storm::Shared {
    std::atomic<bool> blowing;
    std::atomic<unsigned> still;
    std::atomic<uint64_t> acts;
};

Storm::Storm(unsigned processes, const std::function<void(Random &)> &act)
{
    void *memory =
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        broken("no memory to share with the storm");
    shared_ = new (memory) Shared{false, processes, 0};
    for (unsigned i = 0; i < processes; i++) {
        const pid_t pid = fork();
        if (pid < 0)
            broken("a process of the storm cannot be made");
        if (pid > 0) {
            pids_.push_back(pid);
            continue;
        }
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        Random random(i);
        for (bool moving = false;;) {
            const bool blowing = shared_->blowing;
            if (blowing != moving) {
                moving = blowing;
                shared_->still += moving ? -1u : 1u;
            }
            if (moving) {
                act(random);
                shared_->acts++;
            } else {
                usleep(200);
            }
        }
    }
}

Storm::~Storm()
{
    for (const int pid : pids_) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    munmap(shared_, sizeof(Shared));
}

void Storm::blow()
{
    acts_before_ = shared_->acts;
    shared_->blowing = true;
    // A storm that is called off before it began would not be one.
    while (shared_->acts == acts_before_)
        usleep(100);
}

uint64_t Storm::calm()
{
    shared_->blowing = false;
    while (shared_->still != pids_.size())
        usleep(100);
    return shared_->acts - acts_before_;
}

} // namespace vyt::soak
