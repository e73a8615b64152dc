#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "bluetooth/AdvertisingDataStructure.h"
#include "test_support/TestEnv.h"

using Bytes = std::vector<uint8_t>;
namespace ADS = Bluetooth::ADS;

namespace {

// Length octet, type octet, data: how the commands put a structure on air.
Bytes Serialised(const Bluetooth::AdvertisingDataStructure& ads) {
    Bytes out;
    out.push_back(ads.GetLength());
    out.push_back(ads.GetType());
    for (const uint8_t octet : ads.GetData())
        out.push_back(octet);
    return out;
}

Bytes Concat(Bytes head, const std::string& tail) {
    for (const char c : tail)
        head.push_back(static_cast<uint8_t>(c));
    return head;
}

}  // namespace

TEST(AdvertisingDataStructure, FlagsSerialise) {
    const ADS::FlagsADS flags;
    EXPECT_EQ(Serialised(flags), (Bytes{0x02, 0x01, 0x03}));
}

TEST(AdvertisingDataStructure, TxPowerSerialises) {
    const ADS::TxPowerLevelADS tx;
    EXPECT_EQ(Serialised(tx), (Bytes{0x02, 0x0A, 0x14}));
}

TEST(AdvertisingDataStructure, DefaultServiceListSerialises) {
    const ADS::PartialServiceListADS services;
    EXPECT_EQ(Serialised(services), (Bytes{0x03, 0x02, 0xEA, 0xFD}));
    EXPECT_EQ(services.Uuids(), (std::vector<uint16_t>{0xFDEA}));
}

TEST(AdvertisingDataStructure, ServiceListUuidsGoLowOctetFirst) {
    const ADS::PartialServiceListADS services({0x1234, 0xFDEA});
    EXPECT_EQ(Serialised(services), (Bytes{0x05, 0x02, 0x34, 0x12, 0xEA, 0xFD}));
}

TEST(AdvertisingDataStructure, EmptyServiceListIsHeaderOnly) {
    const ADS::PartialServiceListADS services(std::vector<uint16_t>{});
    EXPECT_EQ(Serialised(services), (Bytes{0x01, 0x02}));
}

TEST(AdvertisingDataStructure, NameIsTheSerialNumber) {
    TestSupport::ScopedIdentity id("12345678", "Cobalt", 0);
    const ADS::CompleteLocalNameADS name;
    EXPECT_EQ(Serialised(name), Concat({0x09, 0x09}, "12345678"));
    EXPECT_EQ(name.Name(), "12345678");
}

TEST(AdvertisingDataStructure, NameOfOneCharacterSerial) {
    TestSupport::ScopedIdentity id("Q", "Cobalt", 0);
    EXPECT_EQ(Serialised(ADS::CompleteLocalNameADS()), Concat({0x02, 0x09}, "Q"));
}

TEST(AdvertisingDataStructure, EmptySerialNumberGivesUnknown) {
    TestSupport::ScopedIdentity id("", "Cobalt", 0);
    EXPECT_EQ(Serialised(ADS::CompleteLocalNameADS()), Concat({0x08, 0x09}, "UNKNOWN"));
}

TEST(AdvertisingDataStructure, NameIsReadOnceAtConstruction) {
    TestSupport::ScopedIdentity first("FIRST", "Cobalt", 0);
    const ADS::CompleteLocalNameADS name;
    TestSupport::ScopedIdentity second("SECOND", "Cobalt", 0);
    EXPECT_EQ(Serialised(name), Concat({0x06, 0x09}, "FIRST"));
}

TEST(AdvertisingDataStructure, ExplicitNameIsTakenAsItIs) {
    const ADS::CompleteLocalNameADS name(std::string("a\0b", 3));
    EXPECT_EQ(Serialised(name), (Bytes{0x04, 0x09, 'a', 0x00, 'b'}));
}

TEST(AdvertisingDataStructure, LongNameLengthWrapsAndNothingTruncates) {
    const ADS::CompleteLocalNameADS n254(std::string(254, 'n'));
    EXPECT_EQ(n254.GetLength(), 255);
    const ADS::CompleteLocalNameADS n255(std::string(255, 'n'));
    EXPECT_EQ(n255.GetLength(), 0);
    EXPECT_EQ(n255.GetData().size(), 255u);
    const ADS::CompleteLocalNameADS n300(std::string(300, 'n'));
    EXPECT_EQ(n300.GetLength(), (1 + 300) % 256);
    EXPECT_EQ(n300.GetData().size(), 300u);
}

TEST(AdvertisingDataStructure, NoLimitOf31Octets) {
    const ADS::CompleteLocalNameADS name(std::string(40, 'n'));
    EXPECT_EQ(name.GetLength(), 41);
    EXPECT_EQ(name.GetData(), Bytes(40, 'n'));
}

TEST(AdvertisingDataStructure, CopiesAreMemberWise) {
    const ADS::CompleteLocalNameADS original("ABC");
    const ADS::CompleteLocalNameADS copy = original;
    EXPECT_EQ(Serialised(copy), Serialised(original));
    EXPECT_EQ(copy.Name(), "ABC");
}
