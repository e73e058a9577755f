// A poll loop whose handlers add and delete descriptors at random, their own too, so that numbers
// are reused within a pass. No handler may be called for what is not registered, and in the calm
// every readable descriptor must have its turn.
#include "soak/soak.hpp"

#include "lh_poll_ctx.h"

#include <algorithm>
#include <cerrno>
#include <sys/eventfd.h>
#include <unistd.h>

namespace vyt::soak {
namespace {

class Loop : public Scenario {
  public:
    Loop()
    {
        ctx_.timeout = 1;
        lh_poll_ctx_on_each_event_cb_set(&ctx_, after_pass, this);
    }

    ~Loop() override { lh_poll_ctx_free(&ctx_); }

    void round(Random &random, Figures &figures) override
    {
        random_ = &random;
        figures_ = &figures;
        storming_ = true;
        for (uint32_t i = 0; i < 20; i++)
            add();
        passes_left_ = 20 + below(random, 200);
        run_loop();

        storming_ = false;
        for (const auto &entry : entries_)
            signal(*entry);
        waiting_ = entries_.size();
        passes_left_ = 10;
        run_loop();
        if (waiting_ != 0)
            broken("%zu of %zu readable descriptors had no turn", waiting_, entries_.size());
        while (!entries_.empty())
            remove(*entries_.back());
        buried_.clear();
        buried_.shrink_to_fit();
        entries_.shrink_to_fit();
    }

    std::string allowed_lines() const override { return "no line at all"; }

  private:
    void run_loop()
    {
        ctx_.stop = 0;
        lh_poll_ctx_main_loop(&ctx_);
    }

    struct Entry {
        Loop *loop;
        int fd;
        bool registered;
    };

    static void signal(const Entry &entry)
    {
        if (eventfd_write(entry.fd, 1) != 0)
            broken("descriptor %d cannot be made readable: errno %d", entry.fd, errno);
    }

    void add()
    {
        auto entry = std::make_unique<Entry>(Entry{this, eventfd(0, EFD_NONBLOCK), true});
        if (entry->fd < 0 ||
            lh_poll_ctx_fd_add(&ctx_, "soak", entry->fd, on_readable, entry.get()) != 0)
            broken("descriptor %d cannot be added: errno %d", entry->fd, errno);
        signal(*entry);
        entries_.push_back(std::move(entry));
    }

    // The record stays until the round's end, so that a late call is seen and not only a crash.
    void remove(Entry &entry)
    {
        if (lh_poll_ctx_fd_del(&ctx_, entry.fd) != 0 || close(entry.fd) != 0)
            broken("descriptor %d cannot be deleted: errno %d", entry.fd, errno);
        entry.registered = false;
        const auto found = std::find_if(entries_.begin(), entries_.end(),
                                        [&](const auto &e) { return e.get() == &entry; });
        buried_.push_back(std::move(*found));
        entries_.erase(found);
    }

    static int on_readable(int fd, void *arg)
    {
        auto &entry = *static_cast<Entry *>(arg);
        if (!entry.registered || entry.fd != fd)
            broken("a handler was called for descriptor %d, which is deleted", fd);
        entry.loop->handle(entry);
        return 0;
    }

    void handle(Entry &entry)
    {
        figures_->operations++;
        eventfd_t count;
        if (eventfd_read(entry.fd, &count) != 0)
            broken("descriptor %d was called readable: errno %d", entry.fd, errno);
        if (!storming_) {
            waiting_--;
            return;
        }
        signal(*entries_[below(*random_, uint32_t(entries_.size()))]);
        switch (below(*random_, 6)) {
        case 0:
            remove(entry);
            break;
        case 1:
            remove(*entries_[below(*random_, uint32_t(entries_.size()))]);
            break;
        case 2: // the number is free for the next one
            remove(entry);
            add();
            break;
        default:
            break;
        }
        if (entries_.size() < 10 || (entries_.size() < 60 && below(*random_, 4) == 0))
            add();
    }

    static int after_pass(lh_poll_ctx *, void *arg)
    {
        auto &loop = *static_cast<Loop *>(arg);
        loop.figures_->passes++;
        if (--loop.passes_left_ == 0 || (!loop.storming_ && loop.waiting_ == 0))
            lh_poll_ctx_main_loop_break(&loop.ctx_);
        return 0;
    }

    lh_poll_ctx ctx_ = {};
    std::vector<std::unique_ptr<Entry>> entries_;
    std::vector<std::unique_ptr<Entry>> buried_;
    Random *random_ = nullptr;
    Figures *figures_ = nullptr;
    bool storming_ = false;
    size_t waiting_ = 0;
    uint32_t passes_left_ = 0;
};

} // namespace

std::unique_ptr<Scenario> make_loop()
{
    return std::make_unique<Loop>();
}

} // namespace vyt::soak
