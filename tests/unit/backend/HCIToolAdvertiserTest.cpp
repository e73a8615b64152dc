#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "backend/HCIToolAdvertiser.h"
#include "scan_response/ScanResponse.h"
#include "test_support/TestEnv.h"

namespace TD = ScanResponse::Utils::ThisDevice;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

namespace {

const std::string kQuiet = " > /dev/null 2>&1";
const std::string kParameters =
    "/usr/bin/hcitool -i hci0 cmd 08 0006 00 08 00 08 03 00 00 00 00 00 00 00 00 07 00";
const std::string kData =
    "/usr/bin/hcitool -i hci0 cmd 08 0008 14 02 01 03 02 0a 14 03 02 ea fd 09 09 31 32 33 34 35 36 37 38";
const std::string kV3Response = "/usr/bin/hcitool -i hci0 cmd 08 0009 0c 0b ff f3 05 03 00 03 04 00 00 00 00";

// Stands in for system(): records every line and answers `failStatus` for the call numbered `failAt`.
struct FakeShell {
    std::vector<std::string> lines;
    int failAt = -1;
    int failStatus = 256;

    Backend::HCIToolAdvertiser::CommandRunner Runner() {
        return [this](const char* line) {
            lines.emplace_back(line);
            return static_cast<int>(lines.size()) - 1 == failAt ? failStatus : 0;
        };
    }
};

class HCIToolAdvertiserTest : public ::testing::Test {
  protected:
    void SetUp() override { TD::ResetForTests(); }
    void TearDown() override { TD::ResetForTests(); }

    TestSupport::ScopedIdentity identity{"12345678", "Cobalt", 0};
    FakeShell shell;
    Backend::HCIToolAdvertiser advertiser{shell.Runner()};
};

std::atomic<int> interruptions{0};
void CountInterruption(int) {
    ++interruptions;
}

}  // namespace

TEST_F(HCIToolAdvertiserTest, StartsIdle) {
    EXPECT_FALSE(advertiser.IsConfigured());
    EXPECT_FALSE(advertiser.IsAdvertising());
    EXPECT_FALSE(advertiser.GetSystemCallDebug());
    EXPECT_EQ(advertiser.GetScanResponse(), nullptr);
    EXPECT_TRUE(advertiser.IsUsable());
    EXPECT_TRUE(shell.lines.empty());
}

TEST_F(HCIToolAdvertiserTest, StartWithoutPayloadRunsExactlyThreeQuietCommands) {
    EXPECT_EQ(advertiser.StartAdvertising(), 0);
    EXPECT_EQ(shell.lines, (std::vector<std::string>{kParameters + kQuiet, "hciconfig hci0 leadv" + kQuiet,
                                                     kData + kQuiet}));
    EXPECT_TRUE(advertiser.IsConfigured());
    EXPECT_TRUE(advertiser.IsAdvertising());
}

TEST_F(HCIToolAdvertiserTest, StartWithPayloadSendsTheScanResponseLast) {
    advertiser.SetScanResponse(ScanResponse::Create(uint8_t{3}));
    EXPECT_EQ(advertiser.StartAdvertising(), 0);
    EXPECT_EQ(shell.lines, (std::vector<std::string>{kParameters + kQuiet, "hciconfig hci0 leadv" + kQuiet,
                                                     kData + kQuiet, kV3Response + kQuiet}));
    EXPECT_TRUE(advertiser.IsConfigured());
    EXPECT_TRUE(advertiser.IsAdvertising());
}

TEST_F(HCIToolAdvertiserTest, DebugLeavesTheCommandsUnredirected) {
    advertiser.SetSystemCallDebug(true);
    advertiser.SetScanResponse(ScanResponse::Create(uint8_t{3}));
    EXPECT_EQ(advertiser.StartAdvertising(), 0);
    EXPECT_EQ(advertiser.StopAdvertising(), 0);
    EXPECT_EQ(shell.lines, (std::vector<std::string>{kParameters, "hciconfig hci0 leadv", kData, kV3Response,
                                                     "hciconfig hci0 noleadv"}));
}

TEST_F(HCIToolAdvertiserTest, QuietSuffixOnEveryCommandIncludingStop) {
    advertiser.SetScanResponse(ScanResponse::Create(uint8_t{4}));
    advertiser.StartAdvertising();
    advertiser.StopAdvertising();
    ASSERT_EQ(shell.lines.size(), 5u);
    for (const std::string& line : shell.lines) {
        ASSERT_GE(line.size(), kQuiet.size());
        EXPECT_EQ(line.substr(line.size() - kQuiet.size()), kQuiet) << line;
        EXPECT_EQ(line.find(kQuiet), line.size() - kQuiet.size()) << "suffix added once: " << line;
    }
    EXPECT_EQ(shell.lines[4], "hciconfig hci0 noleadv" + kQuiet);
}

TEST_F(HCIToolAdvertiserTest, FailingParametersStopEverythingAndClearBothFlags) {
    advertiser.SetScanResponse(ScanResponse::Create(uint8_t{3}));
    ASSERT_EQ(advertiser.StartAdvertising(), 0);
    shell.lines.clear();
    shell.failAt = 0;
    shell.failStatus = 127 << 8;
    EXPECT_EQ(advertiser.StartAdvertising(), 127 << 8);
    EXPECT_EQ(shell.lines, (std::vector<std::string>{kParameters + kQuiet}));
    EXPECT_FALSE(advertiser.IsConfigured());
    EXPECT_FALSE(advertiser.IsAdvertising());
}

TEST_F(HCIToolAdvertiserTest, FailingEnableSkipsTheData) {
    advertiser.SetScanResponse(ScanResponse::Create(uint8_t{3}));
    ASSERT_EQ(advertiser.StartAdvertising(), 0);
    shell.lines.clear();
    shell.failAt = 1;
    EXPECT_EQ(advertiser.StartAdvertising(), 256);
    EXPECT_EQ(shell.lines, (std::vector<std::string>{kParameters + kQuiet, "hciconfig hci0 leadv" + kQuiet}));
    EXPECT_FALSE(advertiser.IsConfigured());
    EXPECT_FALSE(advertiser.IsAdvertising());
}

TEST_F(HCIToolAdvertiserTest, FailingDataSkipsTheScanResponseAndUndoesNothing) {
    advertiser.SetScanResponse(ScanResponse::Create(uint8_t{3}));
    shell.failAt = 2;
    shell.failStatus = 1;  // any non-zero status is a failure, even one that is not a wait status
    EXPECT_EQ(advertiser.StartAdvertising(), 1);
    EXPECT_EQ(shell.lines, (std::vector<std::string>{kParameters + kQuiet, "hciconfig hci0 leadv" + kQuiet,
                                                     kData + kQuiet}));
    EXPECT_FALSE(advertiser.IsConfigured());
    EXPECT_FALSE(advertiser.IsAdvertising());
}

TEST_F(HCIToolAdvertiserTest, FailingScanResponseClearsBothFlags) {
    advertiser.SetScanResponse(ScanResponse::Create(uint8_t{3}));
    ASSERT_EQ(advertiser.StartAdvertising(), 0);
    shell.lines.clear();
    shell.failAt = 3;
    shell.failStatus = -1;
    EXPECT_EQ(advertiser.StartAdvertising(), -1);
    EXPECT_EQ(shell.lines.size(), 4u);
    EXPECT_FALSE(advertiser.IsConfigured());
    EXPECT_FALSE(advertiser.IsAdvertising());
}

TEST_F(HCIToolAdvertiserTest, StopAfterStartKeepsConfigured) {
    ASSERT_EQ(advertiser.StartAdvertising(), 0);
    shell.lines.clear();
    EXPECT_EQ(advertiser.StopAdvertising(), 0);
    EXPECT_EQ(shell.lines, (std::vector<std::string>{"hciconfig hci0 noleadv" + kQuiet}));
    EXPECT_TRUE(advertiser.IsConfigured());
    EXPECT_FALSE(advertiser.IsAdvertising());
}

TEST_F(HCIToolAdvertiserTest, FailingStopStillClearsAdvertising) {
    ASSERT_EQ(advertiser.StartAdvertising(), 0);
    shell.lines.clear();
    shell.failAt = 0;
    shell.failStatus = 512;
    EXPECT_EQ(advertiser.StopAdvertising(), 512);
    EXPECT_TRUE(advertiser.IsConfigured());
    EXPECT_FALSE(advertiser.IsAdvertising());
}

TEST_F(HCIToolAdvertiserTest, StopBeforeAnyStartLeavesConfiguredFalse) {
    EXPECT_EQ(advertiser.StopAdvertising(), 0);
    EXPECT_FALSE(advertiser.IsConfigured());
    EXPECT_FALSE(advertiser.IsAdvertising());
}

TEST_F(HCIToolAdvertiserTest, StopWaitsHalfASecond) {
    const auto begin = Clock::now();
    advertiser.StopAdvertising();
    EXPECT_GE(Clock::now() - begin, milliseconds(500));
}

TEST_F(HCIToolAdvertiserTest, StopResumesItsWaitAfterASignal) {
    struct sigaction action {};
    action.sa_handler = CountInterruption;  // no SA_RESTART: the sleep returns EINTR
    sigemptyset(&action.sa_mask);
    struct sigaction previous {};
    ASSERT_EQ(sigaction(SIGUSR1, &action, &previous), 0);
    interruptions = 0;
    const pthread_t self = pthread_self();
    const auto begin = Clock::now();
    std::thread interrupter([self] {
        std::this_thread::sleep_for(milliseconds(100));
        pthread_kill(self, SIGUSR1);
    });
    advertiser.StopAdvertising();
    const auto elapsed = Clock::now() - begin;
    interrupter.join();
    sigaction(SIGUSR1, &previous, nullptr);
    EXPECT_EQ(interruptions.load(), 1);
    EXPECT_GE(elapsed, milliseconds(500));
}

TEST_F(HCIToolAdvertiserTest, AGivenSleeperTakesTheSettleTimeAfterTheCommand) {
    FakeShell quietShell;
    std::vector<milliseconds> waits;
    std::size_t linesBeforeWait = 0;
    Backend::HCIToolAdvertiser sleeping(quietShell.Runner(), [&](milliseconds duration) {
        linesBeforeWait = quietShell.lines.size();
        waits.push_back(duration);
    });
    EXPECT_EQ(sleeping.StopAdvertising(), 0);
    ASSERT_EQ(waits.size(), 1u);
    EXPECT_EQ(waits[0], milliseconds(500));
    EXPECT_EQ(linesBeforeWait, 1u);
    ASSERT_EQ(quietShell.lines.size(), 1u);
    EXPECT_EQ(quietShell.lines[0], "hciconfig hci0 noleadv" + kQuiet);
}

TEST_F(HCIToolAdvertiserTest, EveryStartResendsEverything) {
    advertiser.SetScanResponse(ScanResponse::Create(uint8_t{3}));
    ASSERT_EQ(advertiser.StartAdvertising(), 0);
    ASSERT_EQ(advertiser.StartAdvertising(), 0);
    ASSERT_EQ(shell.lines.size(), 8u);
    EXPECT_EQ(std::vector<std::string>(shell.lines.begin(), shell.lines.begin() + 4),
              std::vector<std::string>(shell.lines.begin() + 4, shell.lines.end()));
}

TEST_F(HCIToolAdvertiserTest, RefreshWithoutPayloadDoesNothing) {
    advertiser.RefreshScanResponse();
    EXPECT_TRUE(shell.lines.empty());
    EXPECT_EQ(advertiser.StartAdvertising(), 0);
    EXPECT_EQ(shell.lines.size(), 3u);
}

TEST_F(HCIToolAdvertiserTest, RefreshUpdatesThePayloadAndSendsNothing) {
    const auto payload = ScanResponse::Create(uint8_t{3});
    advertiser.SetScanResponse(payload);
    TD::SetSSID("AP");
    advertiser.RefreshScanResponse();
    EXPECT_TRUE(shell.lines.empty());
    EXPECT_EQ(payload->Text(), "AP");
    ASSERT_EQ(advertiser.StartAdvertising(), 0);
    ASSERT_EQ(shell.lines.size(), 4u);
    EXPECT_EQ(shell.lines[3],
              "/usr/bin/hcitool -i hci0 cmd 08 0009 0e 0d ff f3 05 03 00 03 04 00 00 00 00 41 50" + kQuiet);
}

TEST_F(HCIToolAdvertiserTest, StartSendsThePayloadAsItWasLastRefreshed) {
    advertiser.SetScanResponse(ScanResponse::Create(uint8_t{3}));
    TD::SetSSID("AP");  // not refreshed: the old bytes go out
    ASSERT_EQ(advertiser.StartAdvertising(), 0);
    EXPECT_EQ(shell.lines[3], kV3Response + kQuiet);
}

TEST_F(HCIToolAdvertiserTest, KeepsThePayloadAlive) {
    {
        auto payload = ScanResponse::Create(uint8_t{3});
        advertiser.SetScanResponse(payload);
    }
    ASSERT_EQ(advertiser.StartAdvertising(), 0);
    ASSERT_EQ(shell.lines.size(), 4u);
    EXPECT_EQ(shell.lines[3], kV3Response + kQuiet);
}

TEST_F(HCIToolAdvertiserTest, DetachingThePayloadGoesBackToThreeCommands) {
    advertiser.SetScanResponse(ScanResponse::Create(uint8_t{3}));
    advertiser.SetScanResponse(nullptr);
    EXPECT_EQ(advertiser.StartAdvertising(), 0);
    EXPECT_EQ(shell.lines.size(), 3u);
}

TEST_F(HCIToolAdvertiserTest, UsableThroughTheInterface) {
    auto owned = std::make_shared<Backend::HCIToolAdvertiser>(shell.Runner());
    std::shared_ptr<Backend::AdvertiserInterface> interface = owned;
    EXPECT_EQ(interface->StartAdvertising(), 0);
    EXPECT_TRUE(owned->IsAdvertising());
    EXPECT_EQ(shell.lines.size(), 3u);
}
