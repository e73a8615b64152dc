#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "scan_response/ScanResponse.h"
#include "test_support/TestEnv.h"

namespace TD = ScanResponse::Utils::ThisDevice;
using Bytes = std::vector<uint8_t>;

namespace {

class ScanResponseTest : public ::testing::Test {
  protected:
    void SetUp() override { TD::ResetForTests(); }
    void TearDown() override { TD::ResetForTests(); }
};

Bytes Concat(Bytes head, const std::string& tail) {
    for (const char c : tail)
        head.push_back(static_cast<uint8_t>(c));
    return head;
}

}  // namespace

// ---- local payloads

TEST_F(ScanResponseTest, V3OnExternalPowerWithoutNetwork) {
    TestSupport::ScopedIdentity id("AB12", "Cobalt", 0);
    ScanResponse::V3 payload;
    EXPECT_EQ(payload.Serialise(), (Bytes{0xF3, 0x05, 0x03, 0x00, 0x03, 0x04, 0x00, 0x00, 0x00, 0x00}));
    EXPECT_EQ(payload.Length(), 11u);
    EXPECT_EQ(payload.AdType(), 0xFF);
    EXPECT_EQ(payload.CompanyIdentifier(), 0x05F3);
    EXPECT_EQ(payload.SchemaVersion(), 3);
}

TEST_F(ScanResponseTest, V4CarriesTheSerialNumber) {
    TestSupport::ScopedIdentity id("AB12", "Cobalt", 0);
    ScanResponse::V4 payload;
    EXPECT_EQ(payload.Serialise(),
              (Bytes{0xF3, 0x05, 0x03, 0x00, 0x04, 0x04, 0x00, 0x00, 0x00, 0x00, 0x41, 0x42, 0x31, 0x32}));
    EXPECT_EQ(payload.Length(), 15u);
    EXPECT_EQ(payload.SchemaVersion(), 4);
}

TEST_F(ScanResponseTest, V3CarriesTheSSIDAndNotTheSerial) {
    TestSupport::ScopedIdentity id("SERIAL", "KelpCam", 0);
    TD::SetSSID("Net");
    TD::SetIPAddress("192.168.1.20");
    TD::SetActivePowerSource(1);
    TD::SetBatteryTypes(1, 1);
    TD::SetBatteryChargePercentages(22, 22);
    ScanResponse::V3 payload;
    // the IP value 2307 goes out most significant byte first: 00 00 09 03
    EXPECT_EQ(payload.Serialise(),
              Concat({0xF3, 0x05, 0x07, 0x00, 0x03, 0x02, 0x00, 0x00, 0x09, 0x03}, "Net"));
    EXPECT_EQ(payload.Length(), 14u);
    EXPECT_EQ(payload.Text(), "Net");
}

TEST_F(ScanResponseTest, V4IgnoresTheSSID) {
    TestSupport::ScopedIdentity id("S1", "Dune", 0);
    TD::SetSSID("Net");
    ScanResponse::V4 payload;
    EXPECT_EQ(payload.Serialise(),
              Concat({0xF3, 0x05, 0x04, 0x00, 0x04, 0x04, 0x00, 0x00, 0x00, 0x00}, "S1"));
    EXPECT_EQ(payload.Text(), "S1");
}

TEST_F(ScanResponseTest, UnknownModelGivesDeviceTypeZero) {
    TestSupport::ScopedIdentity id("S1", "Nope", 0);
    ScanResponse::V3 payload;
    EXPECT_EQ(payload.DeviceTypeCode(), 0);
    EXPECT_EQ(payload.Serialise()[2], 0x00);
}

TEST_F(ScanResponseTest, RefreshRereadsTheUnitState) {
    TestSupport::ScopedIdentity id("S1", "Cobalt", 0);
    ScanResponse::V3 payload;
    TD::SetSSID("Later");
    TD::SetIPAddress("10.0.0.5");
    TD::SetActivePowerSource(7);    // invalid: status 0
    EXPECT_EQ(payload.Text(), "");  // nothing changes until Refresh()
    payload.Refresh();
    EXPECT_EQ(payload.Serialise(),
              Concat({0xF3, 0x05, 0x03, 0x00, 0x03, 0x00, 0x00, 0x00, 0x06, 0x02}, "Later"));
    EXPECT_EQ(payload.Length(), 16u);
}

TEST_F(ScanResponseTest, LengthIsTextPlus11) {
    TestSupport::ScopedIdentity id(std::string(300, 'x'), "Cobalt", 0);
    ScanResponse::V4 payload;
    EXPECT_EQ(payload.Length(), 311u);  // not bounded here
    EXPECT_EQ(payload.Serialise().size(), 310u);
}

// ---- factory by version

TEST_F(ScanResponseTest, CreateByVersion) {
    TestSupport::ScopedIdentity id("S1", "Cobalt", 0);
    const std::shared_ptr<ScanResponse::Base> v3 = ScanResponse::Create(uint8_t{3});
    ASSERT_NE(v3, nullptr);
    EXPECT_NE(dynamic_cast<ScanResponse::V3*>(v3.get()), nullptr);
    EXPECT_EQ(v3->SchemaVersion(), 3);
    const std::shared_ptr<ScanResponse::Base> v4 = ScanResponse::Create(uint8_t{4});
    ASSERT_NE(v4, nullptr);
    EXPECT_NE(dynamic_cast<ScanResponse::V4*>(v4.get()), nullptr);
    EXPECT_EQ(dynamic_cast<ScanResponse::V3*>(v4.get()), nullptr);  // a V4 is not a V3
    EXPECT_EQ(v4->Text(), "S1");
}

TEST_F(ScanResponseTest, CreateByUnknownVersionIsEmpty) {
    EXPECT_EQ(ScanResponse::Create(uint8_t{2}), nullptr);
    EXPECT_EQ(ScanResponse::Create(uint8_t{5}), nullptr);
    EXPECT_EQ(ScanResponse::Create(uint8_t{0}), nullptr);
    EXPECT_EQ(ScanResponse::Create(uint8_t{255}), nullptr);
}

TEST_F(ScanResponseTest, AVersionIsNeverCutToItsLowOctet) {
    // a settings value of 259 or 260 is no schema, even though its low octet is 3 or 4
    EXPECT_EQ(ScanResponse::Create(uint32_t{259}), nullptr);
    EXPECT_EQ(ScanResponse::Create(uint32_t{260}), nullptr);
    EXPECT_NE(ScanResponse::Create(uint32_t{3}), nullptr);
}

// ---- received bytes

TEST_F(ScanResponseTest, ReceivedV3WithoutText) {
    TD::SetSSID("mine");  // a decoded payload never looks at this unit's state
    const auto payload = ScanResponse::Create(Bytes{0x07, 0x00, 0x03, 0x02, 0xC0, 0xA8, 0x01, 0x14});
    ASSERT_NE(payload, nullptr);
    EXPECT_NE(dynamic_cast<ScanResponse::V3*>(payload.get()), nullptr);
    EXPECT_EQ(payload->DeviceTypeCode(), 7);
    EXPECT_EQ(payload->BatteryStatusCode(), 2);
    EXPECT_EQ(payload->IPAddress(), 0x1401A8C0u);
    EXPECT_EQ(TD::IPAddressToString(payload->IPAddress()), "192.168.1.20");
    EXPECT_EQ(payload->Text(), "");
    EXPECT_EQ(payload->CompanyIdentifier(), 0x05F3);
    EXPECT_EQ(payload->SchemaVersion(), 3);
}

TEST_F(ScanResponseTest, ReceivedV4DropsNonPrintableText) {
    const auto payload =
        ScanResponse::Create(Bytes{0x07, 0x00, 0x04, 0x02, 0xC0, 0xA8, 0x01, 0x14, 0x4B, 0x09, 0x4C, 0x41});
    ASSERT_NE(payload, nullptr);
    EXPECT_NE(dynamic_cast<ScanResponse::V4*>(payload.get()), nullptr);
    EXPECT_EQ(payload->Text(), "KLA");
    EXPECT_EQ(payload->SchemaVersion(), 4);
}

TEST_F(ScanResponseTest, ReceivedTextKeepsOnly0x20To0x7E) {
    const ScanResponse::V3 payload(
        Bytes{0x01, 0x00, 0x03, 0x00, 0, 0, 0, 0, 0x1F, 0x20, 0x7E, 0x7F, 0x80, 0xFF, 0x00, 0x41});
    EXPECT_EQ(payload.Text(), " ~A");
}

TEST_F(ScanResponseTest, ReceivedDeviceTypeReadsOnlyTheFirstByte) {
    const auto payload = ScanResponse::Create(Bytes{0x07, 0xFF, 0x03, 0x01});
    ASSERT_NE(payload, nullptr);
    EXPECT_EQ(payload->DeviceTypeCode(), 0x0007);
}

TEST_F(ScanResponseTest, ReceivedTwoBytesThrowOutOfRange) {
    EXPECT_THROW(ScanResponse::Create(Bytes{0x07, 0x00}), std::out_of_range);
}

TEST_F(ScanResponseTest, ReceivedShortOrUnknownVersionIsEmpty) {
    EXPECT_EQ(ScanResponse::Create(Bytes{}), nullptr);
    EXPECT_EQ(ScanResponse::Create(Bytes{0x07}), nullptr);
    EXPECT_EQ(ScanResponse::Create(Bytes{0x07, 0x00, 0x09}), nullptr);
    EXPECT_EQ(ScanResponse::Create(Bytes{0x07, 0x00, 0x09, 0x02, 0xC0, 0xA8, 0x01, 0x14}), nullptr);
    EXPECT_EQ(ScanResponse::Create(Bytes{0x07, 0x00, 0x02, 0x02}), nullptr);
}

TEST_F(ScanResponseTest, ReceivedThreeBytesReadOnlyTheDeviceType) {
    const auto payload = ScanResponse::Create(Bytes{0x05, 0x00, 0x03});
    ASSERT_NE(payload, nullptr);
    EXPECT_EQ(payload->DeviceTypeCode(), 5);
    EXPECT_EQ(payload->BatteryStatusCode(), 0);
    EXPECT_EQ(payload->IPAddress(), 0u);
    EXPECT_EQ(payload->Text(), "");
}

TEST_F(ScanResponseTest, ReceivedFourBytesAddTheBattery) {
    const auto payload = ScanResponse::Create(Bytes{0x05, 0x00, 0x03, 0x04});
    ASSERT_NE(payload, nullptr);
    EXPECT_EQ(payload->BatteryStatusCode(), 4);
    EXPECT_EQ(payload->IPAddress(), 0u);
}

TEST_F(ScanResponseTest, ReceivedFiveToSevenBytesReadOnlyTheIPBytesPresent) {
    // Exact-size vectors: a read past the end shows under AddressSanitizer.
    const auto five = ScanResponse::Create(Bytes{0x07, 0x00, 0x03, 0x02, 0xC0});
    ASSERT_NE(five, nullptr);
    EXPECT_EQ(five->IPAddress(), 0x000000C0u);
    EXPECT_EQ(five->BatteryStatusCode(), 2);
    const auto six = ScanResponse::Create(Bytes{0x07, 0x00, 0x03, 0x02, 0xC0, 0xA8});
    ASSERT_NE(six, nullptr);
    EXPECT_EQ(six->IPAddress(), 0x0000A8C0u);
    const auto seven = ScanResponse::Create(Bytes{0x07, 0x00, 0x04, 0x02, 0xC0, 0xA8, 0x01});
    ASSERT_NE(seven, nullptr);
    EXPECT_EQ(seven->IPAddress(), 0x0001A8C0u);
    EXPECT_EQ(seven->Text(), "");
}

TEST_F(ScanResponseTest, ReceivedTextStartsAtTheNinthByte) {
    const auto payload = ScanResponse::Create(Bytes{0x07, 0x00, 0x03, 0x02, 0xC0, 0xA8, 0x01, 0x14, 0x5A});
    ASSERT_NE(payload, nullptr);
    EXPECT_EQ(payload->Text(), "Z");
}

TEST_F(ScanResponseTest, DirectDecodeOfNothingKeepsTheDefaults) {
    const ScanResponse::V4 payload(Bytes{});
    EXPECT_EQ(payload.DeviceTypeCode(), 0);
    EXPECT_EQ(payload.BatteryStatusCode(), 0);
    EXPECT_EQ(payload.IPAddress(), 0u);
    EXPECT_EQ(payload.Text(), "");
    EXPECT_EQ(payload.CompanyIdentifier(), 0x05F3);
    EXPECT_EQ(payload.SchemaVersion(), 4);
    EXPECT_EQ(payload.AdType(), 0xFF);
}

TEST_F(ScanResponseTest, DecodedVersionIsTheClassesNotTheDatas) {
    const ScanResponse::V3 payload(Bytes{0x07, 0x00, 0x04, 0x02});
    EXPECT_EQ(payload.SchemaVersion(), 3);
}

TEST_F(ScanResponseTest, ReceivedIPIsLittleEndianButSentBigEndian) {
    const auto payload = ScanResponse::Create(Concat({0x07, 0x00, 0x03, 0x02, 0xC0, 0xA8, 0x01, 0x14}, "AP"));
    ASSERT_NE(payload, nullptr);
    EXPECT_EQ(payload->Serialise(),
              Concat({0xF3, 0x05, 0x07, 0x00, 0x03, 0x02, 0x14, 0x01, 0xA8, 0xC0}, "AP"));
    EXPECT_EQ(payload->Length(), 13u);
}
