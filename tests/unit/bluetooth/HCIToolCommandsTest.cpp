#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "bluetooth/HCIToolCommands.h"
#include "scan_response/ScanResponse.h"
#include "test_support/TestEnv.h"

namespace ADS = Bluetooth::ADS;
namespace TD = ScanResponse::Utils::ThisDevice;

namespace {

const std::string kPrefix = "/usr/bin/hcitool -i hci0 cmd ";

// The octets after OGF and OCF.
std::vector<std::string> Octets(const std::string& line) {
    std::istringstream in(line.substr(kPrefix.size()));
    std::vector<std::string> words;
    std::string w;
    while (in >> w)
        words.push_back(w);
    return std::vector<std::string>(words.begin() + 2, words.end());
}

bool IsLowerHex(const std::string& word, std::size_t width) {
    if (word.size() != width)
        return false;
    for (const char c : word) {
        if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f')))
            return false;
    }
    return true;
}

// Single blanks only, two-digit OGF, four-digit OCF, two-digit octets, all lower-case hex.
bool AllOctetsTwoLowerCaseDigits(const std::string& line) {
    if (line.compare(0, kPrefix.size(), kPrefix) != 0)
        return false;
    std::vector<std::string> words;
    std::size_t start = kPrefix.size();
    for (;;) {
        const std::size_t blank = line.find(' ', start);
        words.push_back(line.substr(start, blank == std::string::npos ? std::string::npos : blank - start));
        if (blank == std::string::npos)
            break;
        start = blank + 1;
    }
    if (words.size() < 2 || !IsLowerHex(words[0], 2) || !IsLowerHex(words[1], 4))
        return false;
    for (std::size_t i = 2; i < words.size(); ++i) {
        if (!IsLowerHex(words[i], 2))
            return false;
    }
    return true;
}

// A payload that counts how often the command asks for its length and whether it was refreshed.
class CountingPayload final : public ScanResponse::Base {
  public:
    explicit CountingPayload(uint32_t length) : Base(3), length(length) {}
    uint32_t Length() const override {
        ++lengthCalls;
        return length;
    }
    std::vector<uint8_t> Serialise() const override { return {0xAB, 0xCD}; }
    void Refresh() override { ++refreshes; }

    uint32_t length;
    mutable int lengthCalls = 0;
    int refreshes = 0;
};

class HCIToolCommandsTest : public ::testing::Test {
  protected:
    void SetUp() override { TD::ResetForTests(); }
    void TearDown() override { TD::ResetForTests(); }
};

}  // namespace

// ---- formatting

TEST_F(HCIToolCommandsTest, FormatWithoutParametersEndsAtTheOcf) {
    EXPECT_EQ(Bluetooth::FormatHCIToolCommand(0x08, 0x0006, {}), "/usr/bin/hcitool -i hci0 cmd 08 0006");
}

TEST_F(HCIToolCommandsTest, FormatZeroFillsLowerCaseHex) {
    EXPECT_EQ(Bluetooth::FormatHCIToolCommand(0x3F, 0x0ABC, {0x0A, 0xFF, 0x00, 0x05, 0xEA}),
              "/usr/bin/hcitool -i hci0 cmd 3f 0abc 0a ff 00 05 ea");
    EXPECT_EQ(Bluetooth::FormatHCIToolCommand(0x01, 0xFFFF, {0x10}),
              "/usr/bin/hcitool -i hci0 cmd 01 ffff 10");
    EXPECT_EQ(Bluetooth::FormatHCIToolCommand(0x00, 0x0000, {0x00}),
              "/usr/bin/hcitool -i hci0 cmd 00 0000 00");
}

// ---- LE Set Advertising Parameters

TEST_F(HCIToolCommandsTest, AdvertisingParametersForNonConnectableAdvertising) {
    EXPECT_EQ(Bluetooth::SetAdvertisingParametersCommand(0x03).GetCommand(),
              "/usr/bin/hcitool -i hci0 cmd 08 0006 00 08 00 08 03 00 00 00 00 00 00 00 00 07 00");
}

TEST_F(HCIToolCommandsTest, AdvertisingParametersCarryTheTypeGiven) {
    EXPECT_EQ(Bluetooth::SetAdvertisingParametersCommand(0x00).GetCommand(),
              "/usr/bin/hcitool -i hci0 cmd 08 0006 00 08 00 08 00 00 00 00 00 00 00 00 00 07 00");
    EXPECT_EQ(Octets(Bluetooth::SetAdvertisingParametersCommand(0x0B).GetCommand()).size(), 15u);
    EXPECT_EQ(Octets(Bluetooth::SetAdvertisingParametersCommand(0x0B).GetCommand())[4], "0b");
}

// ---- LE Set Advertising Data

TEST_F(HCIToolCommandsTest, AdvertisingDataForSerial12345678) {
    TestSupport::ScopedIdentity id("12345678", "Cobalt", 0);
    EXPECT_EQ(Bluetooth::SetAdvertisingDataCommand().GetCommand(),
              "/usr/bin/hcitool -i hci0 cmd 08 0008 14 02 01 03 02 0a 14 03 02 ea fd 09 09 31 32 33 34 35 36 "
              "37 38");
}

TEST_F(HCIToolCommandsTest, AdvertisingDataWithoutSerialNamesUnknown) {
    TestSupport::ScopedIdentity id("", "Cobalt", 0);
    EXPECT_EQ(
        Bluetooth::SetAdvertisingDataCommand().GetCommand(),
        "/usr/bin/hcitool -i hci0 cmd 08 0008 13 02 01 03 02 0a 14 03 02 ea fd 08 09 55 4e 4b 4e 4f 57 4e");
}

TEST_F(HCIToolCommandsTest, AdvertisingDataWithAGivenName) {
    TestSupport::ScopedIdentity id("12345678", "Cobalt", 0);
    EXPECT_EQ(Bluetooth::SetAdvertisingDataCommand(ADS::CompleteLocalNameADS("AB")).GetCommand(),
              "/usr/bin/hcitool -i hci0 cmd 08 0008 0e 02 01 03 02 0a 14 03 02 ea fd 03 09 41 42");
}

TEST_F(HCIToolCommandsTest, LongSerialIsSentBeyond31Octets) {
    const std::string serial = "ABCDEFGHIJKLMNOPQRST";  // 20 characters
    TestSupport::ScopedIdentity id(serial, "Cobalt", 0);
    const std::string line = Bluetooth::SetAdvertisingDataCommand().GetCommand();
    const std::vector<std::string> octets = Octets(line);
    EXPECT_EQ(octets[0], "20");  // 32 significant octets
    EXPECT_EQ(octets.size(), 1u + 32u);
    EXPECT_TRUE(AllOctetsTwoLowerCaseDigits(line)) << line;
    EXPECT_EQ(octets[11], "15");  // name length octet: 21
    EXPECT_EQ(octets.back(), "54");
}

TEST_F(HCIToolCommandsTest, EmptyServiceListLowersTheLengthBy2PerUuid) {
    TestSupport::ScopedIdentity id("12345678", "Cobalt", 0);
    const ADS::CompleteLocalNameADS name;
    EXPECT_EQ(
        Bluetooth::SetAdvertisingDataCommand(ADS::PartialServiceListADS(std::vector<uint16_t>{}), name)
            .GetCommand(),
        "/usr/bin/hcitool -i hci0 cmd 08 0008 12 02 01 03 02 0a 14 01 02 09 09 31 32 33 34 35 36 37 38");
    EXPECT_EQ(
        Bluetooth::SetAdvertisingDataCommand(ADS::PartialServiceListADS({0xFDEA, 0x180F}), name).GetCommand(),
        "/usr/bin/hcitool -i hci0 cmd 08 0008 16 02 01 03 02 0a 14 05 02 ea fd 0f 18 09 09 31 32 33 34 35 36 "
        "37 38");
}

TEST_F(HCIToolCommandsTest, SignificantLengthWrapsAt256) {
    const std::string line =
        Bluetooth::SetAdvertisingDataCommand(ADS::CompleteLocalNameADS(std::string(250, 'a'))).GetCommand();
    const std::vector<std::string> octets = Octets(line);
    EXPECT_EQ(octets[0], "06");  // 10 + 2 + 250 = 262
    EXPECT_EQ(octets[11], "fb");
    EXPECT_EQ(octets.size(), 1u + 10u + 2u + 250u);
}

// ---- LE Set Scan Response Data

TEST_F(HCIToolCommandsTest, ScanResponseDataOfAV3Payload) {
    TestSupport::ScopedIdentity id("12345678", "Cobalt", 0);
    ScanResponse::V3 payload;
    EXPECT_EQ(Bluetooth::SetScanResponseDataCommand(&payload).GetCommand(),
              "/usr/bin/hcitool -i hci0 cmd 08 0009 0c 0b ff f3 05 03 00 03 04 00 00 00 00");
}

TEST_F(HCIToolCommandsTest, ScanResponseDataOfAV4Payload) {
    TestSupport::ScopedIdentity id("AB12", "KelpCam", 0);
    TD::SetIPAddress("192.168.1.20");
    ScanResponse::V4 payload;
    EXPECT_EQ(Bluetooth::SetScanResponseDataCommand(&payload).GetCommand(),
              "/usr/bin/hcitool -i hci0 cmd 08 0009 10 0f ff f3 05 07 00 04 04 00 00 09 03 41 42 31 32");
}

TEST_F(HCIToolCommandsTest, ScanResponseAsksForTheLengthTwice) {
    CountingPayload payload(3);
    EXPECT_EQ(Bluetooth::SetScanResponseDataCommand(&payload).GetCommand(),
              "/usr/bin/hcitool -i hci0 cmd 08 0009 04 03 ff ab cd");
    EXPECT_EQ(payload.lengthCalls, 2);
    EXPECT_EQ(payload.refreshes, 0);
}

TEST_F(HCIToolCommandsTest, ScanResponseLengthOctetsAreTruncated) {
    CountingPayload payload(255);
    const std::vector<std::string> octets =
        Octets(Bluetooth::SetScanResponseDataCommand(&payload).GetCommand());
    EXPECT_EQ(octets[0], "00");
    EXPECT_EQ(octets[1], "ff");
    CountingPayload longer(0x1234);
    const std::vector<std::string> more = Octets(Bluetooth::SetScanResponseDataCommand(&longer).GetCommand());
    EXPECT_EQ(more[0], "35");
    EXPECT_EQ(more[1], "34");
}

TEST_F(HCIToolCommandsTest, RefreshPayloadRefreshesAndGetCommandDoesNot) {
    TestSupport::ScopedIdentity id("12345678", "Cobalt", 0);
    ScanResponse::V3 payload;
    Bluetooth::SetScanResponseDataCommand command(&payload);
    TD::SetSSID("AP");
    EXPECT_EQ(command.GetCommand(),
              "/usr/bin/hcitool -i hci0 cmd 08 0009 0c 0b ff f3 05 03 00 03 04 00 00 00 00");
    command.RefreshPayload();
    EXPECT_EQ(command.GetCommand(),
              "/usr/bin/hcitool -i hci0 cmd 08 0009 0e 0d ff f3 05 03 00 03 04 00 00 00 00 41 50");
}

TEST_F(HCIToolCommandsTest, EveryOctetIsTwoLowerCaseHexDigits) {
    TestSupport::ScopedIdentity id("zZ\x7f", "Cobalt", 0);
    TD::SetSSID("\x0a\xea\xfd");
    ScanResponse::V3 payload;
    const std::vector<std::string> lines = {
        Bluetooth::SetAdvertisingParametersCommand(0x03).GetCommand(),
        Bluetooth::SetAdvertisingDataCommand().GetCommand(),
        Bluetooth::SetScanResponseDataCommand(&payload).GetCommand(),
    };
    for (const std::string& line : lines)
        EXPECT_TRUE(AllOctetsTwoLowerCaseDigits(line)) << line;
    EXPECT_NE(lines[1].find(" 0a 14 "), std::string::npos);
    EXPECT_NE(lines[1].find(" ea fd "), std::string::npos);
    EXPECT_NE(lines[2].find(" 0a ea fd"), std::string::npos);
}

TEST_F(HCIToolCommandsTest, CommandsShareTheInterface) {
    TestSupport::ScopedIdentity id("12345678", "Cobalt", 0);
    ScanResponse::V3 payload;
    const Bluetooth::SetAdvertisingParametersCommand parameters(0x03);
    const Bluetooth::SetAdvertisingDataCommand data;
    const Bluetooth::SetScanResponseDataCommand response(&payload);
    const Bluetooth::HCIToolInterface* commands[] = {&parameters, &data, &response};
    const char* ocfs[] = {" 08 0006 ", " 08 0008 ", " 08 0009 "};
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(commands[i]->GetCommand().substr(kPrefix.size() - 1, 9), ocfs[i]);
}

TEST_F(HCIToolCommandsTest, ShapeCheckRejectsMalformedLines) {
    // the checker used above must be able to fail
    EXPECT_FALSE(AllOctetsTwoLowerCaseDigits("/usr/bin/hcitool -i hci0 cmd 08 0006 0A"));
    EXPECT_FALSE(AllOctetsTwoLowerCaseDigits("/usr/bin/hcitool -i hci0 cmd 08 0006 a"));
    EXPECT_FALSE(AllOctetsTwoLowerCaseDigits("/usr/bin/hcitool -i hci0 cmd 08 006 0a"));
    EXPECT_FALSE(AllOctetsTwoLowerCaseDigits("/usr/bin/hcitool -i hci0 cmd 8 0006 0a"));
    EXPECT_FALSE(AllOctetsTwoLowerCaseDigits("/usr/bin/hcitool -i hci0 cmd 08 0006 0a "));
    EXPECT_TRUE(AllOctetsTwoLowerCaseDigits("/usr/bin/hcitool -i hci0 cmd 08 0006 0a"));
}
