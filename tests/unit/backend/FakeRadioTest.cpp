// The fake radio that owners of a Backend::Radio are tested with: what it records and answers.

#include "test_support/FakeRadio.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "backend/TinybRadio.h"

using ::testing::ElementsAre;
using TestSupport::FakeRadio;
using TestSupport::GattBytes;
using TestSupport::GattWrite;

// Held through shared pointers made with their concrete type, never deleted through the interface.
static_assert(std::is_base_of_v<Backend::Radio, Backend::TinybRadio>);
static_assert(std::is_base_of_v<Backend::RadioInterface, Backend::Radio>);
static_assert(!std::has_virtual_destructor_v<Backend::Radio>);
static_assert(std::has_virtual_destructor_v<Backend::NotifyCharacteristic>);

namespace {

constexpr const char* kMac = "AA:BB:CC:00:00:01";

class FakeRadioTest : public ::testing::Test {
  protected:
    std::shared_ptr<FakeRadio> fake = std::make_shared<FakeRadio>();
    // What an owner holds.
    std::shared_ptr<Backend::Radio> radio = fake;
};

}  // namespace

TEST_F(FakeRadioTest, SwitchesRecordTheirCallsAndFollowSuccessfulSetters) {
    EXPECT_TRUE(radio->GetPowered());
    EXPECT_TRUE(radio->SetPowered(false));
    EXPECT_FALSE(radio->GetPowered());
    EXPECT_TRUE(radio->SetPairable(false));
    EXPECT_TRUE(radio->SetDiscoverable(true));
    EXPECT_FALSE(radio->GetPairable());
    EXPECT_TRUE(radio->GetDiscoverable());
    EXPECT_THAT(fake->calls, ElementsAre("powered?", "powered off", "powered?", "pairable off",
                                         "discoverable on", "pairable?", "discoverable?"));
}

TEST_F(FakeRadioTest, AFailingSetterLeavesItsSwitchAlone) {
    fake->setDiscoverableResult = false;
    EXPECT_FALSE(radio->SetDiscoverable(true));
    EXPECT_FALSE(radio->GetDiscoverable());
    fake->setPoweredResult = false;
    EXPECT_FALSE(radio->SetPowered(false));
    EXPECT_TRUE(fake->powered);
    EXPECT_THAT(fake->calls, ElementsAre("discoverable on", "discoverable?", "powered off"));
}

TEST_F(FakeRadioTest, DeviceOperationsRecordTheAddressAndAnswerTheirResult) {
    fake->pairResult = false;
    fake->disconnectResult = false;
    EXPECT_FALSE(radio->PairDevice(kMac, true));
    EXPECT_FALSE(radio->PairDevice(kMac, false));
    EXPECT_TRUE(radio->TrustDevice(kMac, true));
    EXPECT_TRUE(radio->TrustDevice(kMac, false));
    EXPECT_TRUE(radio->ConnectDevice(kMac, true));
    EXPECT_FALSE(radio->ConnectDevice(kMac, false));
    const std::string mac = kMac;
    EXPECT_THAT(fake->calls, ElementsAre("pair " + mac, "unpair " + mac, "trust " + mac, "untrust " + mac,
                                         "connect " + mac, "disconnect " + mac));
}

TEST_F(FakeRadioTest, UsableAsConfigured) {
    EXPECT_TRUE(radio->IsUsable());
    fake->usable = false;
    EXPECT_FALSE(radio->IsUsable());
    EXPECT_TRUE(fake->calls.empty());
}

TEST_F(FakeRadioTest, ReadFillsTheValueOnlyOnSuccess) {
    fake->readValue = TestSupport::ToBytes("V12\r");
    GattBytes out;
    EXPECT_TRUE(radio->ReadCharacteristic(kMac, "svc", "chr", out));
    EXPECT_EQ(TestSupport::ToText(out), "V12\r");
    fake->readResult = false;
    GattBytes untouched{1, 2};
    EXPECT_FALSE(radio->ReadCharacteristic(kMac, "svc", "chr", untouched));
    EXPECT_EQ(untouched, (GattBytes{1, 2}));
    const std::string read = std::string("read ") + kMac + " svc chr";
    EXPECT_THAT(fake->calls, ElementsAre(read, read));
}

TEST_F(FakeRadioTest, WritesAreRecordedWithTheirResultsInOrder) {
    fake->writeResults = {false};
    std::vector<std::string> acted;
    fake->onWrite = [&](const GattWrite& write) { acted.push_back(write.value); };
    EXPECT_FALSE(radio->WriteCharacteristic(kMac, "svc", "chr", TestSupport::ToBytes("RV\r"), 100));
    EXPECT_TRUE(radio->WriteCharacteristic(kMac, "svc", "chr", TestSupport::ToBytes("RP\r"), 0));
    ASSERT_EQ(fake->writes.size(), 2u);
    EXPECT_EQ(fake->writes[0].value, "RV\r");
    EXPECT_EQ(fake->writes[0].delayMs, 100);
    EXPECT_EQ(fake->writes[1].value, "RP\r");
    EXPECT_EQ(fake->writes[1].characteristic, "chr");
    EXPECT_THAT(acted, ElementsAre("RP\r")) << "only a successful write reaches the peer";
    EXPECT_EQ(fake->calls.size(), 2u);
}

TEST_F(FakeRadioTest, NotificationsReachTheCallbackOnlyWhileEnabled) {
    fake->discoveryResult = false;
    EXPECT_FALSE(radio->WaitForServiceDiscovery(kMac, 7));
    auto characteristic = radio->GetNotifyCharacteristic(kMac, "svc", "chr");
    ASSERT_NE(characteristic, nullptr);
    EXPECT_FALSE(fake->Notify("PZ\r")) << "nothing registered yet";

    std::vector<std::string> received;
    EXPECT_TRUE(characteristic->EnableNotifications(
        [&](std::vector<uint8_t>& value) { received.push_back(TestSupport::ToText(value)); }));
    EXPECT_TRUE(characteristic->IsNotifying());
    EXPECT_TRUE(fake->Notify("PZ\r"));
    EXPECT_TRUE(characteristic->DisableNotifications());
    EXPECT_FALSE(fake->Notify("PU\r"));
    EXPECT_FALSE(characteristic->IsNotifying());

    EXPECT_THAT(received, ElementsAre("PZ\r"));
    const std::string mac = kMac;
    EXPECT_THAT(fake->calls, ElementsAre("discover " + mac + " 7", "characteristic " + mac + " svc chr",
                                         "enable", "notifying?", "disable", "notifying?"));
}

TEST_F(FakeRadioTest, AMissingCharacteristicOrAFailedEnableIsReported) {
    fake->characteristicPresent = false;
    EXPECT_EQ(radio->GetNotifyCharacteristic(kMac, "svc", "chr"), nullptr);
    fake->characteristicPresent = true;
    fake->enableResult = false;
    auto characteristic = radio->GetNotifyCharacteristic(kMac, "svc", "chr");
    ASSERT_NE(characteristic, nullptr);
    EXPECT_FALSE(characteristic->EnableNotifications([](std::vector<uint8_t>&) {}));
    EXPECT_FALSE(fake->Notify("PZ\r"));
}
