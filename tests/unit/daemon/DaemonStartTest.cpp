#include <gtest/gtest.h>

#include <ctime>

#include "daemon/DaemonStart.h"
#include "logging/Log.h"

TEST(DaemonStart, StartsOnTheFirstIterationWhenNothingWasRestarted) {
    sd_event* loop = nullptr;
    ASSERT_GE(sd_event_new(&loop), 0);
    EXPECT_EQ(Daemon::StartTime(loop, false), 0u);
    sd_event_unref(loop);
}

TEST(DaemonStart, StartsTwoSecondsLaterAfterARestart) {
    sd_event* loop = nullptr;
    ASSERT_GE(sd_event_new(&loop), 0);
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    const uint64_t before =
        static_cast<uint64_t>(ts.tv_sec) * 1000000u + static_cast<uint64_t>(ts.tv_nsec) / 1000u;
    const uint64_t due = Daemon::StartTime(loop, true);
    clock_gettime(CLOCK_MONOTONIC, &ts);
    const uint64_t after =
        static_cast<uint64_t>(ts.tv_sec) * 1000000u + static_cast<uint64_t>(ts.tv_nsec) / 1000u;
    EXPECT_GE(due, before + 2000000u);
    EXPECT_LE(due, after + 2000000u);
    sd_event_unref(loop);
}

TEST(DaemonStart, AFailingLoopIsLoggedAsInformationAndStillGivesZero) {
    sd_event* loop = nullptr;
    ASSERT_GE(sd_event_new(&loop), 0);
    // a loop that has finished refuses to run again
    ASSERT_GE(sd_event_exit(loop, 0), 0);
    ASSERT_GE(sd_event_loop(loop), 0);
    Logging::Capture capture;
    EXPECT_EQ(Daemon::RunLoop(loop), 0);
    EXPECT_EQ(capture.Count("Failed to start main event loop", LOG_INFO), 1u);
    sd_event_unref(loop);
}

TEST(DaemonStart, ALoopThatEndsNormallyLogsNothing) {
    sd_event* loop = nullptr;
    ASSERT_GE(sd_event_new(&loop), 0);
    ASSERT_GE(sd_event_exit(loop, 3), 0);
    Logging::Capture capture;
    EXPECT_EQ(Daemon::RunLoop(loop), 0);
    EXPECT_EQ(capture.Lines().size(), 0u);
    sd_event_unref(loop);
}
