// The network and power daemons' values in the state the scan response carries.
#include <any>
#include <stdexcept>
#include <string>
#include <vector>

#include "test_support/ControllerFixture.h"

using namespace ControllerTest;
namespace ThisDevice = ScanResponse::Utils::ThisDevice;

class PropertyTracking : public ControllerFixture {
  protected:
    void SetUp() override {
        ControllerFixture::SetUp();
        Make();
    }
};

TEST_F(PropertyTracking, AnEmptySsidLeavesTheLastOneStored) {
    auto named = Map({{"SSID", {"s", std::string("Site-Net")}}});
    controller->NetworkPropertiesChanged(named);
    auto empty = Map({{"SSID", {"s", std::string()}}});
    Logging::Capture capture;
    controller->NetworkPropertiesChanged(empty);
    EXPECT_EQ(ThisDevice::SSID(), "Site-Net");
    EXPECT_FALSE(capture.Contains("SSID: "));
}

TEST_F(PropertyTracking, AnEmptyAddressIsStoredAsEmpty) {
    auto address = Map({{"IPAddress", {"s", std::string("192.168.1.20")}}});
    controller->NetworkPropertiesChanged(address);
    ASSERT_EQ(ThisDevice::IPAddress(), 2307u);
    auto empty = Map({{"IPAddress", {"s", std::string()}}});
    Logging::Capture capture;
    controller->NetworkPropertiesChanged(empty);
    EXPECT_EQ(ThisDevice::IPAddress(), 0u);
    EXPECT_TRUE(capture.Contains("IPAddress: ", LOG_INFO));
}

TEST_F(PropertyTracking, NetworkLinesAndTheirOrder) {
    auto both = Map({{"IPAddress", {"s", std::string("10.0.0.7")}},
                     {"SSID", {"s", std::string("Lab")}},
                     {"Mode", {"s", std::string("ap")}}});
    Logging::Capture capture;
    controller->NetworkPropertiesChanged(both);
    EXPECT_EQ(capture.Texts(),
              (std::vector<std::string>{
                  "void BluetoothController::NetworkPropertiesChanged(sdbus_utils::TypedPropertyMap&)",
                  "IPAddress: 10.0.0.7", "SSID: Lab"}));
}

TEST_F(PropertyTracking, AnAddressThatIsNotANumberThrowsOutOfTheHandler) {
    auto bad = Map({{"IPAddress", {"s", std::string("router.local")}}});
    EXPECT_THROW(controller->NetworkPropertiesChanged(bad), std::invalid_argument);
}

TEST_F(PropertyTracking, NetworkValuesOfAnotherSignatureAreSkipped) {
    auto wrong = Map({{"IPAddress", {"u", uint32_t{5}}}, {"SSID", {"as", std::vector<std::string>{"x"}}}});
    controller->NetworkPropertiesChanged(wrong);
    EXPECT_EQ(ThisDevice::IPAddress(), 0u);
    EXPECT_EQ(ThisDevice::SSID(), "");
}

TEST_F(PropertyTracking, ArraysTakeTheirFirstTwoElementsAndAMissingOneIsZero) {
    auto power = Map({{"BatteryTypes", {"au", std::vector<uint32_t>{2}}},
                      {"BatteryVoltages", {"ai", std::vector<int32_t>{}}},
                      {"BatteryChargePercentages", {"ai", std::vector<int32_t>{55, 66, 77}}},
                      {"ActivePowerSource", {"i", int32_t{3}}}});
    controller->PowerPropertiesChanged(power);
    const auto state = ThisDevice::StoredPowerState();
    EXPECT_EQ(state.batteryTypes[0], 2u);
    EXPECT_EQ(state.batteryTypes[1], 0u);
    EXPECT_EQ(state.voltages[0], 0);
    EXPECT_EQ(state.voltages[1], 0);
    EXPECT_EQ(state.chargePercentages[0], 55);
    EXPECT_EQ(state.chargePercentages[1], 66);
    EXPECT_EQ(state.activePowerSource, 3);
}

TEST_F(PropertyTracking, EmptyArraysReplaceEarlierValues) {
    auto first = Map({{"BatteryVoltages", {"ai", std::vector<int32_t>{16900, 17100}}}});
    controller->PowerPropertiesChanged(first);
    auto none = Map({{"BatteryVoltages", {"ai", std::vector<int32_t>{}}}});
    controller->PowerPropertiesChanged(none);
    EXPECT_EQ(ThisDevice::StoredPowerState().voltages[0], 0);
    EXPECT_EQ(ThisDevice::StoredPowerState().voltages[1], 0);
}

TEST_F(PropertyTracking, ActivePowerSourceSentAsUnsignedIsIgnored) {
    auto signedSource = Map({{"ActivePowerSource", {"i", int32_t{1}}}});
    controller->PowerPropertiesChanged(signedSource);
    auto unsignedSource = Map({{"ActivePowerSource", {"u", uint32_t{4}}}});
    controller->PowerPropertiesChanged(unsignedSource);
    EXPECT_EQ(ThisDevice::StoredPowerState().activePowerSource, 1);
}

TEST_F(PropertyTracking, ArraysOfAnotherSignatureAreIgnored) {
    auto wrong = Map({{"BatteryTypes", {"ai", std::vector<int32_t>{1, 1}}},
                      {"BatteryVoltages", {"au", std::vector<uint32_t>{17000, 17000}}}});
    controller->PowerPropertiesChanged(wrong);
    EXPECT_EQ(ThisDevice::StoredPowerState().batteryTypes[0], 0u);
    EXPECT_EQ(ThisDevice::StoredPowerState().voltages[0], 0);
}

TEST_F(PropertyTracking, AMistypedValueBehindTheRightSignatureThrows) {
    auto mistyped = Map({{"ActivePowerSource", {"i", uint32_t{1}}}});
    EXPECT_THROW(controller->PowerPropertiesChanged(mistyped), std::bad_any_cast);
}

TEST_F(PropertyTracking, EmptyMapsLogOnlyTheReceiversName) {
    sdbus_utils::TypedPropertyMap none;
    Logging::Capture capture;
    controller->PowerPropertiesChanged(none);
    controller->NetworkPropertiesChanged(none);
    EXPECT_EQ(capture.Texts(),
              (std::vector<std::string>{
                  "void BluetoothController::PowerPropertiesChanged(sdbus_utils::TypedPropertyMap&)",
                  "void BluetoothController::NetworkPropertiesChanged(sdbus_utils::TypedPropertyMap&)"}));
}

TEST_F(PropertyTracking, NeitherReceiverTouchesTheAdvertiser) {
    controller.reset();
    MakeInitialised();
    auto power = Map({{"BatteryChargePercentages", {"ai", std::vector<int32_t>{10, 10}}}});
    auto network = Map({{"SSID", {"s", std::string("Other")}}});
    controller->PowerPropertiesChanged(power);
    controller->NetworkPropertiesChanged(network);
    EXPECT_TRUE(journal->empty());
}
