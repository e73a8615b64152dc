#include "loop/Queue.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <system_error>

#include "loop/CBoundary.h"

namespace Loop {

Queue::Queue(sd_event* loop) {
    fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (fd < 0)
        throw std::system_error(errno, std::generic_category(), "eventfd");
    sd_event_source* added = nullptr;
    const int r = sd_event_add_io(loop, &added, fd, EPOLLIN, &Queue::OnWake, this);
    if (r < 0) {
        close(fd);
        throw std::system_error(-r, std::generic_category(), "sd_event_add_io");
    }
    source.reset(added);
    sd_event_source_set_description(added, "loop-queue");
}

Queue::~Queue() {
    // the loop must stop watching the eventfd before it is closed
    source.reset();
    close(fd);
}

void Queue::Close() {
    std::deque<std::function<void()>> dropped;
    {
        std::lock_guard<std::mutex> lock(mutex);
        closed = true;
        dropped.swap(tasks);
    }
    source.reset();
}

bool Queue::Post(std::function<void()> task) {
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (closed)
            return false;
        tasks.push_back(std::move(task));
    }
    const uint64_t one = 1;
    // EAGAIN means the counter is already non-zero: the loop will wake anyway
    while (write(fd, &one, sizeof one) < 0 && errno == EINTR) {
    }
    return true;
}

int Queue::OnWake(sd_event_source*, int, uint32_t, void* userdata) {
    return CBoundary::Call("LoopQueue::OnWake", [&] { static_cast<Queue*>(userdata)->Drain(); });
}

void Queue::Drain() {
    uint64_t count;
    while (read(fd, &count, sizeof count) < 0 && errno == EINTR) {
    }
    std::deque<std::function<void()>> batch;
    {
        std::lock_guard<std::mutex> lock(mutex);
        batch.swap(tasks);
    }
    for (auto& task : batch)
        CBoundary::Call("LoopQueue task", task);
}

}  // namespace Loop
