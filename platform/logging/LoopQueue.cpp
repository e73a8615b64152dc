#include "logging/LoopQueue.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <system_error>

#include "logging/CBoundary.h"

namespace EventLoop {

LoopQueue::LoopQueue(sd_event* loop) {
    fd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (fd_ < 0)
        throw std::system_error(errno, std::generic_category(), "eventfd");
    const int r = sd_event_add_io(loop, &source_, fd_, EPOLLIN, &LoopQueue::OnWake, this);
    if (r < 0) {
        close(fd_);
        throw std::system_error(-r, std::generic_category(), "sd_event_add_io");
    }
    sd_event_source_set_description(source_, "loop-queue");
}

LoopQueue::~LoopQueue() {
    sd_event_source_disable_unref(source_);
    close(fd_);
}

void LoopQueue::Post(std::function<void()> task) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        tasks_.push_back(std::move(task));
    }
    const uint64_t one = 1;
    // EAGAIN means the counter is already non-zero: the loop will wake anyway
    while (write(fd_, &one, sizeof one) < 0 && errno == EINTR) {
    }
}

int LoopQueue::OnWake(sd_event_source*, int, uint32_t, void* userdata) {
    return CBoundary::Call("LoopQueue::OnWake", [&] { static_cast<LoopQueue*>(userdata)->Drain(); });
}

void LoopQueue::Drain() {
    uint64_t count;
    while (read(fd_, &count, sizeof count) < 0 && errno == EINTR) {
    }
    std::deque<std::function<void()>> batch;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        batch.swap(tasks_);
    }
    for (auto& task : batch)
        CBoundary::Call("LoopQueue task", task);
}

}  // namespace EventLoop
