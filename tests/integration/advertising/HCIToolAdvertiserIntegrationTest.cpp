// The advertiser's real system() calls, run inside the test mount namespace where /usr/bin/hcitool and
// /usr/bin/hciconfig are recording stubs.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "backend/HCIToolAdvertiser.h"
#include "scan_response/ScanResponse.h"
#include "test_support/TestEnv.h"

namespace TD = ScanResponse::Utils::ThisDevice;

namespace {

const std::string kParameters = "hcitool -i hci0 cmd 08 0006 00 08 00 08 03 00 00 00 00 00 00 00 00 07 00";
const std::string kData =
    "hcitool -i hci0 cmd 08 0008 14 02 01 03 02 0a 14 03 02 ea fd 09 09 31 32 33 34 35 36 37 38";
const std::string kEnable = "hciconfig hci0 leadv";
const std::string kDisable = "hciconfig hci0 noleadv";

// What the process writes to its standard output while `action` runs.
template <typename Action>
std::string StdoutOf(Action action) {
    char path[] = "/tmp/qb-adv-stdout.XXXXXX";
    const int file = mkstemp(path);
    if (file < 0)
        return "<mkstemp failed>";
    std::fflush(stdout);
    const int saved = dup(STDOUT_FILENO);
    dup2(file, STDOUT_FILENO);
    action();
    std::fflush(stdout);
    dup2(saved, STDOUT_FILENO);
    close(saved);
    close(file);
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    unlink(path);
    return text.str();
}

class HCIToolAdvertiserIntegration : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!TestSupport::InHarness())
            GTEST_SKIP() << "needs the hermetic test unit (tests/harness/testenv.py)";
        TD::ResetForTests();
        TestSupport::SetStubExitStatus("hcitool", 0);
        TestSupport::SetStubExitStatus("hciconfig", 0);
        TestSupport::Truncate(TestSupport::HciCallLog());
    }
    void TearDown() override {
        if (!TestSupport::InHarness())
            return;
        TestSupport::SetStubExitStatus("hcitool", 0);
        TestSupport::SetStubExitStatus("hciconfig", 0);
        TD::ResetForTests();
    }

    static std::vector<std::string> Calls() { return TestSupport::ReadLines(TestSupport::HciCallLog()); }

    TestSupport::ScopedIdentity identity{"12345678", "Cobalt", 0};
};

}  // namespace

TEST_F(HCIToolAdvertiserIntegration, StartAndStopReachTheToolsInOrder) {
    TD::SetSSID("AP");
    TD::SetIPAddress("192.168.1.20");
    Backend::HCIToolAdvertiser advertiser;
    advertiser.SetScanResponse(ScanResponse::Create(uint8_t{3}));
    EXPECT_EQ(advertiser.StartAdvertising(), 0);
    EXPECT_TRUE(advertiser.IsConfigured());
    EXPECT_TRUE(advertiser.IsAdvertising());
    EXPECT_EQ(advertiser.StopAdvertising(), 0);
    EXPECT_TRUE(advertiser.IsConfigured());
    EXPECT_FALSE(advertiser.IsAdvertising());
    EXPECT_EQ(Calls(),
              (std::vector<std::string>{
                  kParameters, kEnable, kData,
                  "hcitool -i hci0 cmd 08 0009 0e 0d ff f3 05 03 00 03 04 00 00 09 03 41 50", kDisable}));
}

TEST_F(HCIToolAdvertiserIntegration, WithoutPayloadThreeCallsAreMade) {
    Backend::HCIToolAdvertiser advertiser;
    EXPECT_EQ(advertiser.StartAdvertising(), 0);
    EXPECT_EQ(Calls(), (std::vector<std::string>{kParameters, kEnable, kData}));
}

TEST_F(HCIToolAdvertiserIntegration, FailingHciconfigStopsTheSequence) {
    Backend::HCIToolAdvertiser advertiser;
    advertiser.SetScanResponse(ScanResponse::Create(uint8_t{4}));
    ASSERT_EQ(advertiser.StartAdvertising(), 0);
    TestSupport::Truncate(TestSupport::HciCallLog());
    TestSupport::SetStubExitStatus("hciconfig", 1);
    const int status = advertiser.StartAdvertising();
    // system()'s raw wait status, not the exit code
    EXPECT_EQ(status, 1 << 8);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 1);
    EXPECT_FALSE(advertiser.IsConfigured());
    EXPECT_FALSE(advertiser.IsAdvertising());
    EXPECT_EQ(Calls(), (std::vector<std::string>{kParameters, kEnable}));
}

TEST_F(HCIToolAdvertiserIntegration, FailingHcitoolStopsAtTheParameters) {
    Backend::HCIToolAdvertiser advertiser;
    advertiser.SetScanResponse(ScanResponse::Create(uint8_t{3}));
    TestSupport::SetStubExitStatus("hcitool", 3);
    EXPECT_EQ(advertiser.StartAdvertising(), 3 << 8);
    EXPECT_FALSE(advertiser.IsConfigured());
    EXPECT_FALSE(advertiser.IsAdvertising());
    EXPECT_EQ(Calls(), (std::vector<std::string>{kParameters}));
}

TEST_F(HCIToolAdvertiserIntegration, FailingStopIsReportedAndClearsAdvertising) {
    Backend::HCIToolAdvertiser advertiser;
    ASSERT_EQ(advertiser.StartAdvertising(), 0);
    TestSupport::SetStubExitStatus("hciconfig", 2);
    EXPECT_EQ(advertiser.StopAdvertising(), 2 << 8);
    EXPECT_TRUE(advertiser.IsConfigured());
    EXPECT_FALSE(advertiser.IsAdvertising());
    EXPECT_EQ(Calls().back(), kDisable);
}

TEST_F(HCIToolAdvertiserIntegration, ToolOutputIsDiscardedUnlessDebugging) {
    Backend::HCIToolAdvertiser advertiser;
    const std::string quiet = StdoutOf([&] { EXPECT_EQ(advertiser.StartAdvertising(), 0); });
    EXPECT_EQ(quiet, "");
    advertiser.SetSystemCallDebug(true);
    const std::string loud = StdoutOf([&] { EXPECT_EQ(advertiser.StartAdvertising(), 0); });
    EXPECT_NE(loud.find("< HCI Command: ogf 0x08, ocf 0x0006, plen 15"), std::string::npos) << loud;
    EXPECT_NE(loud.find("< HCI Command: ogf 0x08, ocf 0x0008, plen 21"), std::string::npos) << loud;
    EXPECT_EQ(Calls().size(), 6u);
}
