#include <gtest/gtest.h>

#include <future>
#include <stdexcept>
#include <system_error>
#include <thread>

#include "logging/Log.h"
#include "loop/CBoundary.h"
#include "loop/Queue.h"

TEST(Logging, CaptureSeesExactTextAndPriority) {
    Logging::Capture capture;
    Logging::Log(LOG_INFO, "%s: Adding radio object...\n", "Run");
    Logging::Log(LOG_ERR, "value %d", 42);
    ASSERT_EQ(capture.Lines().size(), 2u);
    EXPECT_EQ(capture.Lines()[0].text, "Run: Adding radio object...\n");
    EXPECT_EQ(capture.Lines()[0].priority, LOG_INFO);
    EXPECT_TRUE(capture.Contains("value 42", LOG_ERR));
    EXPECT_FALSE(capture.Contains("value 42", LOG_INFO));
}

TEST(Logging, LongLinesAreNotCut) {
    Logging::Capture capture;
    const std::string big(3000, 'x');
    Logging::Log(LOG_INFO, "%s", big.c_str());
    ASSERT_EQ(capture.Lines().size(), 1u);
    EXPECT_EQ(capture.Lines()[0].text, big);
}

TEST(Logging, CaptureCollectsLinesFromOtherThreads) {
    Logging::Capture capture;
    std::thread t([] {
        for (int i = 0; i < 100; ++i)
            Logging::Log(LOG_INFO, "worker %d", i);
    });
    for (int i = 0; i < 100; ++i)
        Logging::Log(LOG_INFO, "main %d", i);
    t.join();
    EXPECT_EQ(capture.CountContaining("worker "), 100u);
    EXPECT_EQ(capture.CountContaining("main "), 100u);
}

TEST(CBoundary, ReturnsTheBodysResult) {
    EXPECT_EQ(CBoundary::Call("t", [] { return 7; }), 7);
    EXPECT_EQ(CBoundary::Call("t", [] {}), 0);
}

TEST(CBoundary, ExceptionsBecomeNegativeErrnoAndAnErrorLine) {
    Logging::Capture capture;
    EXPECT_EQ(CBoundary::Call("cb", []() -> int { throw std::out_of_range("map::at"); }), -ERANGE);
    EXPECT_EQ(CBoundary::Call("cb", []() -> int { throw std::invalid_argument("stoi"); }), -EINVAL);
    EXPECT_EQ(CBoundary::Call("cb", []() -> int { throw std::system_error(EBUSY, std::generic_category()); }),
              -EBUSY);
    EXPECT_EQ(CBoundary::Call("cb", []() -> int { throw std::runtime_error("x"); }), -EIO);
    EXPECT_EQ(CBoundary::Call("cb", []() -> int { throw 5; }), -EIO);
    EXPECT_EQ(capture.Lines().size(), 5u);
    for (const auto& l : capture.Lines())
        EXPECT_EQ(l.priority, LOG_ERR);
    EXPECT_TRUE(capture.Contains("cb: exception stopped at the C boundary: map::at"));
}

TEST(CBoundary, OnlyErrnoCategoriesGiveTheirCode) {
    Logging::Capture capture;
    // a future_error's code is not an errno
    EXPECT_EQ(
        CBoundary::Call(
            "cb", []() -> int { throw std::system_error(std::make_error_code(std::future_errc::no_state)); }),
        -EIO);
    EXPECT_EQ(CBoundary::Call("cb", []() -> int { throw std::system_error(EACCES, std::system_category()); }),
              -EACCES);
    EXPECT_EQ(capture.Lines().size(), 2u);
}

TEST(LoopQueue, RunsPostedTasksOnTheLoopThreadInOrder) {
    sd_event* loop = nullptr;
    ASSERT_GE(sd_event_new(&loop), 0);
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
    sd_event_unref(loop);
    ASSERT_EQ(order.size(), 50u);
    for (int i = 0; i < 50; ++i)
        EXPECT_EQ(order[static_cast<size_t>(i)], i);
    EXPECT_EQ(ranOn, std::this_thread::get_id());
}
