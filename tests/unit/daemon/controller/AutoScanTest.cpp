// The periodic scan: the timer, the period's steps, failures and the scan lock.
#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>

#include "test_support/ControllerFixture.h"
#include "test_support/ControllerProbe.h"
#include "test_support/LockHolder.h"

using namespace ControllerTest;

namespace {
constexpr uint64_t kSecond = 1'000'000;

bool TryLockElsewhere(std::mutex& lock) {
    bool taken = false;
    std::thread([&] {
        taken = lock.try_lock();
        if (taken)
            lock.unlock();
    }).join();
    return taken;
}
}  // namespace

class AutoScan : public ControllerFixture {};

TEST_F(AutoScan, StartArmsOnePeriodFromTheLoopsNow) {
    MakeInitialised();
    controller->StopAutoScanTask();
    uint64_t before = 0;
    ASSERT_GE(sd_event_now(loop, CLOCK_MONOTONIC, &before), 0);
    controller->StartAutoScanTask();
    uint64_t after = 0;
    ASSERT_GE(sd_event_now(loop, CLOCK_MONOTONIC, &after), 0);
    EXPECT_TRUE(controller->AutoScanArmed());
    EXPECT_GE(controller->AutoScanDueUsec(), before + 10 * kSecond);
    EXPECT_LE(controller->AutoScanDueUsec(), after + 10 * kSecond);
}

TEST_F(AutoScan, APeriodStopsScansRefreshesAndRestartsAdvertisingThenRearmsFromItsEnd) {
    MakeInitialised();
    Logging::Capture capture;
    EXPECT_EQ(controller->AutoScanTask(), 0);
    EXPECT_EQ(*journal,
              (Journal{"advertiser stop", "scanner scan", "advertiser refresh", "advertiser start"}));
    // rate 10: the next period starts 10 s after this one ended
    EXPECT_EQ(controller->AutoScanDueUsec(), nowUsec + 10 * kSecond);
    EXPECT_TRUE(controller->AutoScanArmed());
    EXPECT_TRUE(capture.Lines().empty());
    EXPECT_TRUE(TryLockElsewhere(ControllerProbe::ScanLock(*controller)));
}

TEST_F(AutoScan, AScannerThatAlwaysFailsGetsThreeAttemptsAndThreeRadioReboots) {
    scanner->scanResult = -1;
    MakeInitialised();
    Logging::Capture capture;
    EXPECT_EQ(controller->AutoScanTask(), -1);
    const Journal attempt = {"scanner scan", "radio powered off", "sleep 2000 ms", "radio powered on"};
    Journal expected = {"advertiser stop"};
    for (int i = 0; i < 3; ++i)
        expected.insert(expected.end(), attempt.begin(), attempt.end());
    expected.insert(expected.end(), {"advertiser refresh", "advertiser start"});
    EXPECT_EQ(*journal, expected);
    EXPECT_EQ(capture.Count("Error when scanning for devices... rebooting radio", LOG_ERR), 3u);
    EXPECT_TRUE(controller->AutoScanArmed());
    EXPECT_EQ(controller->AutoScanDueUsec(), nowUsec + 10 * kSecond);
}

TEST_F(AutoScan, ASecondAttemptThatSucceedsEndsTheRetries) {
    MakeInitialised();
    scanner->scanResult = -1;
    scanner->onScan = [](TestSupport::FakeScanner& self) {
        if (self.ScanCalls() == 2)
            self.scanResult = 0;
    };
    EXPECT_EQ(controller->AutoScanTask(), 0);
    EXPECT_EQ(scanner->ScanCalls(), 2);
    EXPECT_EQ(radio->calls, (std::vector<std::string>{"powered off", "powered on"}));
}

TEST_F(AutoScan, ABusyScanLockSkipsThePeriodButRearms) {
    MakeInitialised();
    {
        TestSupport::LockHolder worker(ControllerProbe::ScanLock(*controller));
        EXPECT_EQ(controller->AutoScanTask(), 0);
    }
    EXPECT_TRUE(journal->empty());
    EXPECT_EQ(scanner->ScanCalls(), 0);
    EXPECT_TRUE(controller->AutoScanArmed());
    EXPECT_EQ(controller->AutoScanDueUsec(), nowUsec + 10 * kSecond);
}

TEST_F(AutoScan, WithAdvertisingDisabledAPeriodDoesNotStartIt) {
    flags = {{"advertisingEnabled", false}};
    MakeInitialised();
    controller->AutoScanTask();
    EXPECT_EQ(*journal, (Journal{"scanner scan", "advertiser refresh"}));
}

TEST_F(AutoScan, APassThatThrowsIsAbandonedAndTheUnitGoesBackOnAir) {
    MakeInitialised();
    scanner->onScan = [](TestSupport::FakeScanner&) { throw std::out_of_range("vector::_M_range_check"); };
    Logging::Capture capture;
    EXPECT_LT(controller->AutoScanTask(), 0);
    EXPECT_EQ(*journal,
              (Journal{"advertiser stop", "scanner scan", "advertiser refresh", "advertiser start"}));
    EXPECT_EQ(capture.CountContaining("vector::_M_range_check"), 1u);
    EXPECT_EQ(capture.Lines().at(0).priority, LOG_ERR);
    EXPECT_TRUE(controller->AutoScanArmed());
    EXPECT_TRUE(TryLockElsewhere(ControllerProbe::ScanLock(*controller)));
    // and the next period runs as usual
    scanner->onScan = nullptr;
    EXPECT_EQ(controller->AutoScanTask(), 0);
    EXPECT_EQ(scanner->ScanCalls(), 2);
}

TEST_F(AutoScan, DisablingWhileArmedDisarms) {
    MakeInitialised();
    ASSERT_TRUE(controller->AutoScanArmed());
    controller->SetAutoScanEnabled(false);
    EXPECT_FALSE(controller->GetAutoScanEnabled());
    EXPECT_FALSE(controller->AutoScanArmed());
    EXPECT_EQ(controller->AutoScanDueUsec(), UINT64_MAX);
    controller->SetAutoScanEnabled(true);
    EXPECT_TRUE(controller->AutoScanArmed());
    EXPECT_NE(controller->AutoScanDueUsec(), UINT64_MAX);
}

TEST_F(AutoScan, ANewRateWaitsForTheNextArming) {
    MakeInitialised();
    const uint64_t due = controller->AutoScanDueUsec();
    controller->SetAutoScanRateSecs(25);
    EXPECT_EQ(controller->GetAutoScanRateSecs(), 25u);
    EXPECT_EQ(controller->AutoScanDueUsec(), due);
    controller->AutoScanTask();
    EXPECT_EQ(controller->AutoScanDueUsec(), nowUsec + 25 * kSecond);
}

TEST_F(AutoScan, RatesPastTheSigned32BitProductWrapAsTheUnitAlwaysDid) {
    numbers = {{"autoScanRateSecs", 2148}};
    MakeInitialised();
    controller->AutoScanTask();
    // 2148 s x 1,000,000 wraps negative: the next period is due in the past, at once
    EXPECT_EQ(controller->AutoScanDueUsec(), nowUsec - 2'146'967'296ULL);
}

TEST_F(AutoScan, TheLoopRunsPeriodsAndFailedPeriodsKeepTheTimerAlive) {
    realClock = true;
    numbers = {{"autoScanRateSecs", 0}};
    scanner->scanResult = -1;
    MakeInitialised();
    // every period fails, and its callback must still leave the source enabled for the next one
    EXPECT_TRUE(RunLoopUntil([this] { return scanner->ScanCalls() >= 6; }));
    EXPECT_TRUE(controller->AutoScanArmed());
    controller->SetAutoScanEnabled(false);
    const int calls = scanner->ScanCalls();
    sd_event_run(loop, 300'000);
    EXPECT_EQ(scanner->ScanCalls(), calls);
}

TEST_F(AutoScan, StartAndStopFailuresAreLoggedWithTheirCodes) {
    MakeInitialised();
    // a loop that has finished refuses to re-arm its sources
    ASSERT_GE(sd_event_exit(loop, 0), 0);
    ASSERT_TRUE(RunLoopUntil([this] { return sd_event_get_state(loop) == SD_EVENT_FINISHED; }));
    Logging::Capture capture;
    controller->StartAutoScanTask();
    controller->StopAutoScanTask();
    const std::vector<std::string> expected = {
        "StartAutoScanTask: Could not start AutoScanTask: " + std::to_string(-ESTALE),
        "StopAutoScanTask: Could not stop AutoScanTask: " + std::to_string(-ESTALE)};
    EXPECT_EQ(capture.Texts(), expected);
    for (const auto& line : capture.Lines())
        EXPECT_EQ(line.priority, LOG_ERR);
}

TEST_F(AutoScan, EachScanLeavesItsOutcomeForTheStatusLine) {
    using Outcome = BluetoothController::ScanOutcome;
    MakeInitialised();
    EXPECT_EQ(controller->LastScanOutcome(), Outcome::None);
    controller->AutoScanTask();
    EXPECT_EQ(controller->LastScanOutcome(), Outcome::Succeeded);
    {
        TestSupport::LockHolder worker(ControllerProbe::ScanLock(*controller));
        controller->AutoScanTask();
    }
    EXPECT_EQ(controller->LastScanOutcome(), Outcome::Skipped);
    scanner->scanResult = -1;
    controller->AutoScanTask();
    EXPECT_EQ(controller->LastScanOutcome(), Outcome::Failed);
    scanner->scanResult = 0;
    scanner->onScan = [](TestSupport::FakeScanner&) { throw std::out_of_range("vector::_M_range_check"); };
    controller->AutoScanTask();
    EXPECT_EQ(controller->LastScanOutcome(), Outcome::Failed);
}

TEST_F(AutoScan, AClientsScanIsOnePassWithoutRebootsAndItsOutcomeIsKept) {
    using Outcome = BluetoothController::ScanOutcome;
    MakeInitialised();
    scanner->scanResult = -1;
    EXPECT_EQ(controller->ScanOnce(), -1);
    EXPECT_EQ(scanner->ScanCalls(), 1);
    EXPECT_TRUE(radio->calls.empty());
    EXPECT_EQ(controller->LastScanOutcome(), Outcome::Failed);
    scanner->scanResult = 0;
    EXPECT_EQ(controller->ScanOnce(), 0);
    EXPECT_EQ(controller->LastScanOutcome(), Outcome::Succeeded);
    EXPECT_EQ(controller->DevicesKnown(), scanner->Devices().size());
}
