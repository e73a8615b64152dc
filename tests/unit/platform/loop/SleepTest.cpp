#include "loop/Sleep.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <thread>

using namespace std::chrono_literals;

namespace {

std::atomic<bool> g_sleeping{false};
std::atomic<int> g_signalsWhileSleeping{0};

void OnSignal(int) {
    if (g_sleeping.load())
        g_signalsWhileSleeping.fetch_add(1);
}

// A SIGUSR1 handler without SA_RESTART, so that the sleep sees EINTR; the previous one comes back.
class ScopedInterruptingHandler {
  public:
    ScopedInterruptingHandler() {
        struct sigaction action {};
        action.sa_handler = OnSignal;
        sigemptyset(&action.sa_mask);
        action.sa_flags = 0;
        installed = sigaction(SIGUSR1, &action, &previous) == 0;
    }
    ~ScopedInterruptingHandler() {
        if (installed)
            sigaction(SIGUSR1, &previous, nullptr);
    }
    bool Installed() const { return installed; }

  private:
    struct sigaction previous {};
    bool installed = false;
};

}  // namespace

TEST(Sleep, LastsAtLeastTheDuration) {
    const auto start = std::chrono::steady_clock::now();
    Loop::SleepFor(50ms);
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_GE(elapsed, 50ms);
    EXPECT_LT(elapsed, 10s);
}

TEST(Sleep, NothingToWaitForReturnsAtOnce) {
    const auto start = std::chrono::steady_clock::now();
    Loop::SleepFor(0ms);
    Loop::SleepFor(-5ms);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);
}

TEST(Sleep, ASignalDoesNotCutItShort) {
    ScopedInterruptingHandler handler;
    ASSERT_TRUE(handler.Installed());
    g_signalsWhileSleeping = 0;
    std::atomic<bool> done{false};
    const pthread_t sleeper = pthread_self();
    // Keeps signalling until the sleep is over, so that at least one lands inside it however late this
    // thread gets to run.
    std::thread signaller([&] {
        while (!done.load()) {
            std::this_thread::sleep_for(5ms);
            if (g_sleeping.load())
                pthread_kill(sleeper, SIGUSR1);
        }
    });

    const auto start = std::chrono::steady_clock::now();
    g_sleeping = true;
    Loop::SleepFor(300ms);
    g_sleeping = false;
    const auto elapsed = std::chrono::steady_clock::now() - start;
    done = true;
    signaller.join();

    EXPECT_GE(g_signalsWhileSleeping.load(), 1) << "no signal arrived during the sleep";
    EXPECT_GE(elapsed, 300ms);
    EXPECT_LT(elapsed, 30s);
}
