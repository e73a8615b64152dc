#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "logging/Log.h"
#include "utils/HciWatchdog.h"

namespace {

// A scripted sysfs: the interface appears after `appearsAfterChecks` existence checks (-1: never).
struct FakeSystem {
    int appearsAfterChecks = -1;
    int checks = 0;
    int sleeps = 0;
    // a stop is requested once this many sleeps are done (-1: never)
    int stopAfterSleeps = -1;
    std::vector<std::string> restarts;

    Utils::WatchdogHooks Hooks() {
        return {[this](int index) {
                    EXPECT_EQ(index, 0);
                    const bool present = appearsAfterChecks >= 0 && checks >= appearsAfterChecks;
                    ++checks;
                    return present;
                },
                [this](const std::string& unit) {
                    restarts.push_back(unit);
                    return true;
                },
                [this] { ++sleeps; }, [this] { return stopAfterSleeps >= 0 && sleeps >= stopAfterSleeps; }};
    }
};

}  // namespace

TEST(HciWatchdog, PresentInterfaceLogsOkayRestartsNothingAndReturnsFalse) {
    Logging::Capture capture;
    FakeSystem sys;
    sys.appearsAfterChecks = 0;
    EXPECT_FALSE(Utils::EnsureInterface(0, sys.Hooks()));
    EXPECT_TRUE(sys.restarts.empty());
    EXPECT_EQ(sys.sleeps, 0);
    ASSERT_EQ(capture.Lines().size(), 1u);
    EXPECT_EQ(capture.Lines()[0].text, "HCI0 okay, no need to restart services!");
    EXPECT_EQ(capture.Lines()[0].priority, LOG_INFO);
}

TEST(HciWatchdog, InterfaceAppearingDuringTheFirstWaitRestartsBothUnitsOnceAndReturnsTrue) {
    Logging::Capture capture;
    FakeSystem sys;
    sys.appearsAfterChecks = 3;  // first pass check, then two failed waits
    EXPECT_TRUE(Utils::EnsureInterface(0, sys.Hooks()));
    EXPECT_EQ(sys.restarts, (std::vector<std::string>{"variscite-bt.service", "bluetooth.service"}));
    EXPECT_EQ(sys.sleeps, 2);
    EXPECT_EQ(capture.Count("HCI0 does not exist, relaunching BT related services...", LOG_ERR), 1u);
    EXPECT_EQ(capture.Count("Waiting for HCI0 interface...", LOG_ERR), 2u);
    EXPECT_EQ(capture.Count("HCI0 has been brought up!", LOG_INFO), 1u);
    EXPECT_EQ(capture.Count("HCI0 okay, no need to restart services!"), 0u);
}

TEST(HciWatchdog, InterfaceNeverAppearingMakesFivePassesOfFiveWaitsAndReturnsTrue) {
    Logging::Capture capture;
    FakeSystem sys;
    EXPECT_TRUE(Utils::EnsureInterface(0, sys.Hooks()));
    ASSERT_EQ(sys.restarts.size(), 10u);
    for (size_t i = 0; i < sys.restarts.size(); i += 2) {
        EXPECT_EQ(sys.restarts[i], "variscite-bt.service");
        EXPECT_EQ(sys.restarts[i + 1], "bluetooth.service");
    }
    EXPECT_EQ(sys.sleeps, 25);
    // per pass: one check of its own, five waiting checks and the last check
    EXPECT_EQ(sys.checks, 5 * 7);
    EXPECT_EQ(capture.Count("HCI0 does not exist, relaunching BT related services..."), 5u);
    EXPECT_EQ(capture.Count("Waiting for HCI0 interface..."), 25u);
    EXPECT_EQ(capture.Count("HCI0 has been brought up!"), 0u);
}

TEST(HciWatchdog, InterfaceAppearingInTheSecondPassStillReportsARestart) {
    FakeSystem sys;
    sys.appearsAfterChecks = 7;  // whole first pass fails, second pass finds it at its own check
    Logging::Capture capture;
    EXPECT_TRUE(Utils::EnsureInterface(0, sys.Hooks()));
    EXPECT_EQ(sys.restarts.size(), 2u);
    EXPECT_EQ(capture.Count("HCI0 okay, no need to restart services!"), 1u);
}

TEST(HciWatchdog, WaitChecksFiveTimesThenOnceMore) {
    FakeSystem sys;
    Logging::Capture capture;
    EXPECT_FALSE(Utils::WaitForInterface(0, sys.Hooks()));
    EXPECT_EQ(sys.checks, 6);
    EXPECT_EQ(sys.sleeps, 5);
    sys = FakeSystem{};
    sys.appearsAfterChecks = 5;  // appears right at the last check
    EXPECT_TRUE(Utils::WaitForInterface(0, sys.Hooks()));
}

TEST(HciWatchdog, InterfaceIndexIsFormattedIntoThePath) {
    EXPECT_STREQ(Utils::kHciPathPrefix, "/sys/class/bluetooth/hci");
    // no Bluetooth in this test's sysfs view: index 99 never exists
    EXPECT_FALSE(Utils::InterfaceExists(99));
}

TEST(HciWatchdog, AStopBeforeTheFirstCheckRestartsNothing) {
    Logging::Capture capture;
    FakeSystem sys;
    sys.stopAfterSleeps = 0;
    EXPECT_FALSE(Utils::EnsureInterface(0, sys.Hooks()));
    EXPECT_TRUE(sys.restarts.empty());
    EXPECT_EQ(sys.checks, 0);
    EXPECT_TRUE(capture.Lines().empty());
}

TEST(HciWatchdog, AStopDuringTheWaitEndsItWithNothingMoreRestarted) {
    Logging::Capture capture;
    FakeSystem sys;
    sys.stopAfterSleeps = 2;  // two seconds into the first pass's wait
    EXPECT_TRUE(Utils::EnsureInterface(0, sys.Hooks()));
    EXPECT_EQ(sys.restarts, (std::vector<std::string>{"variscite-bt.service", "bluetooth.service"}));
    EXPECT_EQ(sys.sleeps, 2);
    EXPECT_EQ(capture.Count("Waiting for HCI0 interface...", LOG_ERR), 2u);
    EXPECT_EQ(capture.Count("HCI0 does not exist, relaunching BT related services...", LOG_ERR), 1u);
}
