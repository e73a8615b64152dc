// The fake advertiser that owners of a Backend::Advertiser are tested with; its flags are checked against
// HCIToolAdvertiser's over the same statuses.

#include "test_support/FakeAdvertiser.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "backend/HCIToolAdvertiser.h"
#include "scan_response/ScanResponse.h"
#include "scan_response/ThisDevice.h"
#include "test_support/TestEnv.h"

using ::testing::ElementsAre;
using TestSupport::FakeAdvertiser;

static_assert(std::is_base_of_v<Backend::Advertiser, Backend::HCIToolAdvertiser>);
static_assert(std::is_base_of_v<Backend::AdvertiserInterface, Backend::Advertiser>);
static_assert(!std::has_virtual_destructor_v<Backend::Advertiser>);

namespace {

class FakeAdvertiserTest : public ::testing::Test {
  protected:
    std::shared_ptr<FakeAdvertiser> fake = std::make_shared<FakeAdvertiser>();
    // What an owner holds.
    std::shared_ptr<Backend::Advertiser> advertiser = fake;
};

}  // namespace

TEST_F(FakeAdvertiserTest, StartsIdle) {
    EXPECT_TRUE(advertiser->IsUsable());
    EXPECT_FALSE(advertiser->IsConfigured());
    EXPECT_FALSE(advertiser->IsAdvertising());
    EXPECT_FALSE(advertiser->GetSystemCallDebug());
    EXPECT_EQ(advertiser->GetScanResponse(), nullptr);
    EXPECT_TRUE(fake->calls.empty());
}

TEST_F(FakeAdvertiserTest, RecordsCallsAndReturnsTheConfiguredStatuses) {
    EXPECT_EQ(advertiser->StartAdvertising(), 0);
    fake->stopStatus = 256;
    EXPECT_EQ(advertiser->StopAdvertising(), 256);
    advertiser->RefreshScanResponse();
    fake->startStatus = 127 << 8;
    EXPECT_EQ(advertiser->StartAdvertising(), 127 << 8);
    EXPECT_THAT(fake->calls, ElementsAre("start", "stop", "refresh", "start"));
}

TEST_F(FakeAdvertiserTest, KeepsThePayloadAndTheDebugFlag) {
    std::shared_ptr<ScanResponse::Base> payload = ScanResponse::Create(uint8_t{3});
    advertiser->SetScanResponse(payload);
    advertiser->SetSystemCallDebug(true);
    EXPECT_EQ(advertiser->GetScanResponse(), payload);
    EXPECT_TRUE(advertiser->GetSystemCallDebug());
    advertiser->SetScanResponse(nullptr);
    EXPECT_EQ(advertiser->GetScanResponse(), nullptr);
    EXPECT_TRUE(fake->calls.empty());
}

TEST_F(FakeAdvertiserTest, UsableAsConfigured) {
    fake->usable = false;
    EXPECT_FALSE(advertiser->IsUsable());
}

// The same starts and stops, with the same statuses, on both: after each, both show the expected flags.
TEST(FakeAdvertiserFlags, FollowTheRealAdvertiserOverTheSameStatuses) {
    ScanResponse::Utils::ThisDevice::ResetForTests();
    TestSupport::ScopedIdentity identity{"12345678", "Cobalt", 0};
    int shellStatus = 0;
    auto real =
        std::make_shared<Backend::HCIToolAdvertiser>([&shellStatus](const char*) { return shellStatus; });
    auto fake = std::make_shared<FakeAdvertiser>();
    real->SetScanResponse(ScanResponse::Create(uint8_t{3}));
    fake->SetScanResponse(ScanResponse::Create(uint8_t{3}));
    const std::vector<std::shared_ptr<Backend::Advertiser>> both{real, fake};

    struct Step {
        bool start;
        int status;
        bool configured;
        bool advertising;
    };
    const Step steps[] = {
        {true, 0, true, true}, {false, 0, true, false},   {true, 256, false, false},
        {true, 0, true, true}, {false, 256, true, false}, {true, 256, false, false},
    };
    for (const Step& step : steps) {
        shellStatus = step.status;
        fake->startStatus = step.status;
        fake->stopStatus = step.status;
        for (const auto& advertiser : both) {
            const std::string what = std::string(advertiser == fake ? "fake " : "real ") +
                                     (step.start ? "start " : "stop ") + std::to_string(step.status);
            const int status = step.start ? advertiser->StartAdvertising() : advertiser->StopAdvertising();
            EXPECT_EQ(status, step.status) << what;
            EXPECT_EQ(advertiser->IsConfigured(), step.configured) << what;
            EXPECT_EQ(advertiser->IsAdvertising(), step.advertising) << what;
        }
    }
    ScanResponse::Utils::ThisDevice::ResetForTests();
}
