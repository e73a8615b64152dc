#include <gtest/gtest.h>

#include <thread>

#include "logging/Log.h"

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
