#include <gtest/gtest.h>

#include <future>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include "loop/Queue.h"
#include "test_support/BusKit.h"

TEST(LoopQueue, RunsPostedTasksOnTheLoopThreadInOrder) {
    const auto owned = BusKit::NewLoop();
    ASSERT_TRUE(owned);
    sd_event* loop = owned.get();
    std::vector<int> order;
    std::thread::id ranOn;
    {
        Loop::Queue queue(loop);
        std::thread poster([&] {
            for (int i = 0; i < 50; ++i)
                queue.Post([&order, i] { order.push_back(i); });
            queue.Post([&] { throw std::runtime_error("dropped"); });
            queue.Post([&] {
                ranOn = std::this_thread::get_id();
                sd_event_exit(loop, 0);
            });
        });
        EXPECT_GE(sd_event_loop(loop), 0);
        poster.join();
    }
    ASSERT_EQ(order.size(), 50u);
    for (int i = 0; i < 50; ++i)
        EXPECT_EQ(order[static_cast<size_t>(i)], i);
    EXPECT_EQ(ranOn, std::this_thread::get_id());
}

TEST(LoopQueue, AClosedQueueDropsWhatWasQueuedAndRefusesMoreAndMayBeReleasedOffTheLoop) {
    const auto owned = BusKit::NewLoop();
    ASSERT_TRUE(owned);
    sd_event* loop = owned.get();
    int ran = 0;
    auto queue = std::make_shared<Loop::Queue>(loop);
    EXPECT_TRUE(queue->Post([&ran] { ++ran; }));
    queue->Close();
    EXPECT_FALSE(queue->Post([&ran] { ++ran; }));
    // nothing left for the loop to watch or run
    EXPECT_EQ(sd_event_run(loop, 0), 0);
    EXPECT_EQ(ran, 0);
    // a worker that held the last reference lets it go on its own thread
    std::thread holder([held = std::move(queue)]() mutable { held.reset(); });
    holder.join();
}
