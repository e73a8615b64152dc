#pragma once
// Event-loop helpers for bus tests: a loop on its own thread that runs given work there (for servers),
// and pumping a loop on the test's own thread until a condition holds (for listeners).

#include <systemd/sd-event.h>

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <thread>
#include <type_traits>

#include "loop/Queue.h"
#include "test_support/BusKit.h"

namespace BusTest {

class LoopThread {
  public:
    LoopThread() {
        // shared: the waiting side may wake and leave before set_value() has returned
        auto ready = std::make_shared<std::promise<void>>();
        auto started = ready->get_future();
        thread = std::thread([this, ready] {
            loop = BusKit::NewLoop();
            queue = std::make_unique<Loop::Queue>(loop.get());
            ready->set_value();
            sd_event_loop(loop.get());
            queue.reset();
            loop.reset();
        });
        started.wait();
    }
    ~LoopThread() {
        Run([this] { sd_event_exit(loop.get(), 0); });
        thread.join();
    }
    LoopThread(const LoopThread&) = delete;
    LoopThread& operator=(const LoopThread&) = delete;

    sd_event* Loop() const { return loop.get(); }

    // Runs `work` on the loop thread and returns its result.
    template <typename Work>
    auto Run(Work work) -> std::invoke_result_t<Work> {
        // shared for the same reason: get() may return while the loop thread is still leaving the task
        auto task = std::make_shared<std::packaged_task<std::invoke_result_t<Work>()>>(std::move(work));
        auto result = task->get_future();
        queue->Post([task] { (*task)(); });
        return result.get();
    }

  private:
    DbusHelper::Event loop;
    std::unique_ptr<Loop::Queue> queue;
    std::thread thread;
};

// Dispatches `loop` on the calling thread until `condition` holds or `timeout` passes.
inline bool PumpUntil(sd_event* loop, const std::function<bool()>& condition,
                      std::chrono::milliseconds timeout = std::chrono::milliseconds(3000)) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        sd_event_run(loop, 10 * 1000);
    }
    return true;
}

// Dispatches `loop` for `duration` (to show that nothing arrives).
inline void PumpFor(sd_event* loop, std::chrono::milliseconds duration) {
    PumpUntil(
        loop, [] { return false; }, duration);
}

}  // namespace BusTest
