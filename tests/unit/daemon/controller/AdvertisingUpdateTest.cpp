// Rebuilding the scan response and putting it on air.
#include <string>

#include "PayloadSchema.h"
#include "test_support/ControllerFixture.h"

using namespace ControllerTest;

class AdvertisingUpdate : public ControllerFixture {};

TEST_F(AdvertisingUpdate, ThreeAndFourAreRecordedAndAdvertisingRestarts) {
    MakeInitialised();
    ASSERT_TRUE(advertiser->IsAdvertising());
    controller->UpdateScanResponse(4);
    EXPECT_EQ(controller->GetScanResponseVersion(), 4u);
    EXPECT_TRUE(IsV4(advertiser->GetScanResponse()));
    EXPECT_EQ(*journal, (Journal{"advertiser stop", "advertiser start"}));
    journal->clear();
    controller->UpdateScanResponse(3);
    EXPECT_EQ(controller->GetScanResponseVersion(), 3u);
    EXPECT_TRUE(IsV3(advertiser->GetScanResponse()));
    EXPECT_EQ(*journal, (Journal{"advertiser stop", "advertiser start"}));
}

TEST_F(AdvertisingUpdate, AnUnknownVersionLogsTheStoredOneRebuildsItAndRecordsThree) {
    MakeInitialised();
    controller->UpdateScanResponse(4);
    journal->clear();
    Logging::Capture capture;
    controller->UpdateScanResponse(7);
    EXPECT_EQ(capture.Texts(),
              std::vector<std::string>{"Could not create scan response for version 4, falling back to 3"});
    EXPECT_EQ(capture.Lines().at(0).priority, LOG_ERR);
    // three different rules, on purpose: the payload stays schema 4 while 3 is recorded
    EXPECT_TRUE(IsV4(advertiser->GetScanResponse()));
    EXPECT_EQ(controller->GetScanResponseVersion(), 3u);
    EXPECT_EQ(*journal, (Journal{"advertiser stop", "advertiser start"}));
}

TEST_F(AdvertisingUpdate, AVersionWhoseLowOctetIsASchemaIsStillUnknown) {
    MakeInitialised();
    Logging::Capture capture;
    controller->UpdateScanResponse(256 + 4);
    EXPECT_TRUE(capture.Contains("Could not create scan response for version 3, falling back to 3", LOG_ERR));
    EXPECT_TRUE(IsV3(advertiser->GetScanResponse()));
    EXPECT_EQ(controller->GetScanResponseVersion(), 3u);
}

TEST_F(AdvertisingUpdate, WithAdvertisingDisabledARunningAdvertisementIsStoppedAndNotRestarted) {
    flags = {{"advertisingEnabled", false}};
    MakeInitialised();
    ASSERT_FALSE(advertiser->IsAdvertising());
    advertiser->StartAdvertising();  // running all the same, as after a failed stop or by hand
    journal->clear();
    controller->UpdateScanResponse(4);
    EXPECT_EQ(*journal, Journal{"advertiser stop"});
    EXPECT_FALSE(advertiser->IsAdvertising());
    EXPECT_TRUE(IsV4(advertiser->GetScanResponse()));
    EXPECT_EQ(controller->GetScanResponseVersion(), 4u);
}

TEST_F(AdvertisingUpdate, NothingRunningAndAdvertisingDisabledMeansNoAdvertiserCall) {
    flags = {{"advertisingEnabled", false}};
    MakeInitialised();
    controller->UpdateScanResponse(4);
    EXPECT_TRUE(journal->empty());
}

TEST_F(AdvertisingUpdate, AStoppedAdvertiserIsStartedWhenAdvertisingIsEnabled) {
    MakeInitialised();
    advertiser->StopAdvertising();
    journal->clear();
    controller->UpdateScanResponse(3);
    EXPECT_EQ(*journal, Journal{"advertiser start"});
}
