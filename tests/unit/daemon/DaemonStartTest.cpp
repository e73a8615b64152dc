#include <gtest/gtest.h>

#include <ctime>
#include <initializer_list>
#include <string>
#include <vector>

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

namespace {
const char* Requested(std::initializer_list<const char*> args) {
    std::vector<char*> argv{const_cast<char*>("quorbel-bluetoothd")};
    for (const char* a : args)
        argv.push_back(const_cast<char*>(a));
    return Daemon::InformationRequested(static_cast<int>(argv.size()), argv.data());
}
}  // namespace

TEST(DaemonStart, HelpAndVersionAreAnsweredAndAnythingElseIgnored) {
    EXPECT_EQ(Requested({}), nullptr);
    EXPECT_EQ(Requested({"-d", "extra"}), nullptr);
    EXPECT_EQ(Requested({"--helpme"}), nullptr);
    const std::string version = Requested({"--version"});
    EXPECT_EQ(version, "quorbel-bluetoothd 1.0.0\n");
    const std::string help = Requested({"ignored", "--help"});
    EXPECT_EQ(help.rfind("Usage: quorbel-bluetoothd\n", 0), 0u) << help;
    // the first one named wins
    EXPECT_EQ(std::string(Requested({"--version", "--help"})), version);
}
