#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "logging/Log.h"
#include "scan_response/ThisDevice.h"
#include "test_support/TestEnv.h"

namespace TD = ScanResponse::Utils::ThisDevice;

namespace {

const char* const kBadSourceLine =
    "uint16_t ScanResponse::Utils::ThisDevice::DeviceBatteryStatus() Power source is not recognised: %d";

std::string BadSourceLine(int source) {
    char line[160];
    std::snprintf(line, sizeof line, kBadSourceLine, source);
    return line;
}

class ThisDeviceTest : public ::testing::Test {
  protected:
    void SetUp() override { TD::ResetForTests(); }
    void TearDown() override { TD::ResetForTests(); }

    // One battery slot of type 1 reporting `level` as its charge, the other slot of a type that takes no
    // part.
    static uint16_t StatusForLevel(int32_t level) {
        TD::SetActivePowerSource(1);
        TD::SetBatteryTypes(1, 9);
        TD::SetBatteryChargePercentages(level, 0);
        return TD::DeviceBatteryStatus();
    }

    // One voltage-only slot (type 0) at `voltage`, the other slot ignored.
    static uint16_t StatusForVoltage(int32_t voltage) {
        TD::SetActivePowerSource(2);
        TD::SetBatteryTypes(0, 5);
        TD::SetBatteryVoltages(voltage, 0);
        return TD::DeviceBatteryStatus();
    }
};

}  // namespace

// ---- battery status

TEST_F(ThisDeviceTest, NothingReceivedYetCountsAsExternalPowerAndFull) {
    EXPECT_EQ(TD::DeviceBatteryStatus(), 4);
}

TEST_F(ThisDeviceTest, ExternalPowerIsFullWhateverTheBatteriesSay) {
    Logging::Capture capture;
    TD::SetActivePowerSource(0);
    TD::SetBatteryTypes(1, 1);
    TD::SetBatteryChargePercentages(0, 0);
    EXPECT_EQ(TD::DeviceBatteryStatus(), 4);
    TD::SetBatteryTypes(0, 0);
    TD::SetBatteryVoltages(0, 0);
    EXPECT_EQ(TD::DeviceBatteryStatus(), 4);
    EXPECT_TRUE(capture.Lines().empty());
}

TEST_F(ThisDeviceTest, UnrecognisedPowerSourceLogsOnceAndGivesCritical) {
    TD::SetActivePowerSource(7);
    TD::SetBatteryTypes(1, 1);
    TD::SetBatteryChargePercentages(100, 100);
    Logging::Capture capture;
    EXPECT_EQ(TD::DeviceBatteryStatus(), 0);
    ASSERT_EQ(capture.Lines().size(), 1u);
    EXPECT_EQ(capture.Lines()[0].text, BadSourceLine(7));
    EXPECT_EQ(capture.Lines()[0].priority, LOG_ERR);
}

TEST_F(ThisDeviceTest, NegativeAndFourAreUnrecognisedToo) {
    TD::SetBatteryTypes(1, 1);
    TD::SetBatteryChargePercentages(100, 100);
    Logging::Capture capture;
    TD::SetActivePowerSource(-1);
    EXPECT_EQ(TD::DeviceBatteryStatus(), 0);
    TD::SetActivePowerSource(4);
    EXPECT_EQ(TD::DeviceBatteryStatus(), 0);
    EXPECT_EQ(capture.Count(BadSourceLine(-1), LOG_ERR), 1u);
    EXPECT_EQ(capture.Count(BadSourceLine(4), LOG_ERR), 1u);
}

TEST_F(ThisDeviceTest, PowerSourcesOneToThreeUseTheBatteries) {
    TD::SetBatteryTypes(1, 1);
    TD::SetBatteryChargePercentages(10, 10);
    Logging::Capture capture;
    for (int32_t source = 1; source <= 3; ++source) {
        TD::SetActivePowerSource(source);
        EXPECT_EQ(TD::DeviceBatteryStatus(), 1) << "source " << source;
    }
    EXPECT_TRUE(capture.Lines().empty());
}

TEST_F(ThisDeviceTest, TwoPercentageSlotsAverageWithTheHalfRoundedUp) {
    TD::SetActivePowerSource(1);
    TD::SetBatteryTypes(1, 1);
    TD::SetBatteryChargePercentages(50, 51);  // (50 + 51 + 1) / 2 = 51
    EXPECT_EQ(TD::DeviceBatteryStatus(), 3);
    TD::SetBatteryChargePercentages(20, 21);  // 21, not 20: the half rounds up
    EXPECT_EQ(TD::DeviceBatteryStatus(), 2);
    TD::SetBatteryChargePercentages(60, 61);  // 61
    EXPECT_EQ(TD::DeviceBatteryStatus(), 4);
}

TEST_F(ThisDeviceTest, VoltageSlotBesideAnIgnoredType3Slot) {
    TD::SetActivePowerSource(1);
    TD::SetBatteryTypes(0, 3);
    TD::SetBatteryVoltages(17500, 0);  // level 43 alone; averaged with a voltage slot it would be 23
    TD::SetBatteryChargePercentages(0, 0);
    EXPECT_EQ(TD::DeviceBatteryStatus(), 3);
}

TEST_F(ThisDeviceTest, VoltageSlotsOfTypes2And4Average) {
    TD::SetActivePowerSource(3);
    TD::SetBatteryTypes(2, 4);
    TD::SetBatteryVoltages(16799, 18000);  // (3 + 81 + 1) / 2 = 42
    EXPECT_EQ(TD::DeviceBatteryStatus(), 3);
    TD::SetBatteryVoltages(16799, 16799);  // (3 + 3 + 1) / 2 = 3
    EXPECT_EQ(TD::DeviceBatteryStatus(), 0);
}

TEST_F(ThisDeviceTest, VoltageStepTableAtEveryBound) {
    // 81 -> 4, 43 -> 3, 23 -> 2, 13 -> 1, 3 -> 0
    EXPECT_EQ(StatusForVoltage(30000), 4);
    EXPECT_EQ(StatusForVoltage(18000), 4);
    EXPECT_EQ(StatusForVoltage(17999), 3);
    EXPECT_EQ(StatusForVoltage(17500), 3);
    EXPECT_EQ(StatusForVoltage(17499), 2);
    EXPECT_EQ(StatusForVoltage(17000), 2);
    EXPECT_EQ(StatusForVoltage(16999), 1);
    EXPECT_EQ(StatusForVoltage(16800), 1);
    EXPECT_EQ(StatusForVoltage(16799), 0);
    EXPECT_EQ(StatusForVoltage(0), 0);
    EXPECT_EQ(StatusForVoltage(-5), 0);
}

TEST_F(ThisDeviceTest, VoltageNeverGivesMoreThan81) {
    // (81 + 38 + 1) / 2 = 60 -> 3; a voltage level of 100 would have given 69 -> 4.
    TD::SetActivePowerSource(1);
    TD::SetBatteryTypes(0, 1);
    TD::SetBatteryVoltages(25000, 0);
    TD::SetBatteryChargePercentages(0, 38);
    EXPECT_EQ(TD::DeviceBatteryStatus(), 3);
}

TEST_F(ThisDeviceTest, LevelToStatusAtEveryBound) {
    EXPECT_EQ(StatusForLevel(100), 4);
    EXPECT_EQ(StatusForLevel(61), 4);
    EXPECT_EQ(StatusForLevel(60), 3);
    EXPECT_EQ(StatusForLevel(26), 3);
    EXPECT_EQ(StatusForLevel(25), 2);
    EXPECT_EQ(StatusForLevel(21), 2);
    EXPECT_EQ(StatusForLevel(20), 1);
    EXPECT_EQ(StatusForLevel(6), 1);
    EXPECT_EQ(StatusForLevel(5), 0);
    EXPECT_EQ(StatusForLevel(0), 0);
    EXPECT_EQ(StatusForLevel(-10), 0);
}

TEST_F(ThisDeviceTest, PercentageIsTakenAsReportedEvenAbove100) {
    EXPECT_EQ(StatusForLevel(250), 4);
}

TEST_F(ThisDeviceTest, OnlyTheSecondSlotTakingPart) {
    TD::SetActivePowerSource(1);
    TD::SetBatteryTypes(3, 1);
    TD::SetBatteryChargePercentages(100, 22);
    EXPECT_EQ(TD::DeviceBatteryStatus(), 2);
}

TEST_F(ThisDeviceTest, NoSlotTakingPartOnBatteryPowerIsCritical) {
    Logging::Capture capture;
    TD::SetActivePowerSource(1);
    TD::SetBatteryTypes(5, 6);
    TD::SetBatteryChargePercentages(100, 100);
    TD::SetBatteryVoltages(20000, 20000);
    EXPECT_EQ(TD::DeviceBatteryStatus(), 0);
    EXPECT_TRUE(capture.Lines().empty());
}

// ---- IP address

TEST_F(ThisDeviceTest, IPAddressStoresTheFirstGroupWidthTimes769) {
    TD::SetIPAddress("192.168.1.20");
    EXPECT_EQ(TD::IPAddress(), 2307u);
    EXPECT_EQ(TD::IPAddress(), 0x00000903u);
    TD::SetIPAddress("10.0.0.5");
    EXPECT_EQ(TD::IPAddress(), 1538u);
    TD::SetIPAddress("1.255.255.255");
    EXPECT_EQ(TD::IPAddress(), 769u);
}

TEST_F(ThisDeviceTest, IPAddressLooksOnlyAtTheTextBeforeTheFirstDot) {
    TD::SetIPAddress("12.x");  // the later groups are never converted
    EXPECT_EQ(TD::IPAddress(), 1538u);
    TD::SetIPAddress("1.");
    EXPECT_EQ(TD::IPAddress(), 769u);
    TD::SetIPAddress(" +7abc.1.2.3");  // blank, sign and digit consumed; "abc" is not
    EXPECT_EQ(TD::IPAddress(), 3u * 769u);
}

TEST_F(ThisDeviceTest, EmptyAndDotlessAddressesStoreZero) {
    TD::SetIPAddress("192.168.1.20");
    TD::SetIPAddress("");
    EXPECT_EQ(TD::IPAddress(), 0u);
    TD::SetIPAddress("192.168.1.20");
    TD::SetIPAddress("localhost");
    EXPECT_EQ(TD::IPAddress(), 0u);
}

TEST_F(ThisDeviceTest, NonNumericFirstGroupThrowsInvalidArgument) {
    TD::SetIPAddress("192.168.1.20");
    try {
        TD::SetIPAddress("x.1.2.3");
        FAIL() << "no exception";
    } catch (const std::invalid_argument& e) {
        EXPECT_STREQ(e.what(), "stoi");
    }
    EXPECT_EQ(TD::IPAddress(), 2307u);
    EXPECT_THROW(TD::SetIPAddress(".1.2.3"), std::invalid_argument);
}

TEST_F(ThisDeviceTest, OutOfRangeFirstGroupThrowsOutOfRange) {
    try {
        TD::SetIPAddress("99999999999.1.2.3");
        FAIL() << "no exception";
    } catch (const std::out_of_range& e) {
        EXPECT_STREQ(e.what(), "stoi");
    }
}

TEST_F(ThisDeviceTest, IPAddressParseRestoresErrno) {
    errno = EAGAIN;
    TD::SetIPAddress("192.168.1.20");
    EXPECT_EQ(errno, EAGAIN);
}

TEST_F(ThisDeviceTest, IPAddressToStringPrintsLeastSignificantByteFirst) {
    EXPECT_EQ(TD::IPAddressToString(0x1401A8C0u), "192.168.1.20");
    EXPECT_EQ(TD::IPAddressToString(2307u), "3.9.0.0");
    EXPECT_EQ(TD::IPAddressToString(0u), "0.0.0.0");
    EXPECT_EQ(TD::IPAddressToString(0xFFFFFFFFu), "255.255.255.255");
}

TEST_F(ThisDeviceTest, BytesToHexStringUpperCaseWithTrailingBlank) {
    EXPECT_EQ(TD::BytesToHexString({0x0A, 0xFF, 0x00, 0x5C}), "0A FF 00 5C ");
    EXPECT_EQ(TD::BytesToHexString({}), "");
}

// ---- SSID, serial number, device type

TEST_F(ThisDeviceTest, SSIDIsCopiedVerbatim) {
    EXPECT_EQ(TD::SSID(), "");
    TD::SetSSID(" My Net\t");
    EXPECT_EQ(TD::SSID(), " My Net\t");
}

TEST_F(ThisDeviceTest, ResetForTestsClearsTheRecord) {
    TD::SetSSID("net");
    TD::SetIPAddress("1.2.3.4");
    TD::SetActivePowerSource(9);
    TD::ResetForTests();
    EXPECT_EQ(TD::SSID(), "");
    EXPECT_EQ(TD::IPAddress(), 0u);
    EXPECT_EQ(TD::DeviceBatteryStatus(), 4);
}

TEST_F(ThisDeviceTest, SerialNumberComesFromTheIdentity) {
    TestSupport::ScopedIdentity id("QB0042", "Cobalt", 0);
    EXPECT_EQ(TD::SerialNumber(), "QB0042");
}

TEST_F(ThisDeviceTest, ModelDeviceTypeByDisplayName) {
    {
        TestSupport::ScopedIdentity id("1", "Cobalt", 0);
        EXPECT_EQ(TD::ModelDeviceType(), 3);
    }
    {
        TestSupport::ScopedIdentity id("1", "Harbor", 0);
        EXPECT_EQ(TD::ModelDeviceType(), 9);
    }
    {
        TestSupport::ScopedIdentity id("1", "KelpCam", 0);
        EXPECT_EQ(TD::ModelDeviceType(), 7);
    }
}

TEST_F(ThisDeviceTest, ModelDeviceTypeIgnoresLetterCase) {
    {
        TestSupport::ScopedIdentity id("1", "cOBALT", 0);
        EXPECT_EQ(TD::ModelDeviceType(), 3);
    }
    {
        TestSupport::ScopedIdentity id("1", "KELPCAM", 0);
        EXPECT_EQ(TD::ModelDeviceType(), 7);
    }
}

TEST_F(ThisDeviceTest, ModelDeviceTypeNeedsTheWholeName) {
    for (const char* name : {"", "Cobal", "Cobalts", "Unknown", "Kelp Cam"}) {
        TestSupport::ScopedIdentity id("1", name, 0);
        EXPECT_EQ(TD::ModelDeviceType(), 0) << '"' << name << '"';
    }
}

TEST_F(ThisDeviceTest, ModelDeviceTypeWithoutIdentityIsZero) {
    TestSupport::ScopedIdentity id("", "", 0);
    EXPECT_EQ(TD::ModelDeviceType(), 0);
    EXPECT_EQ(TD::SerialNumber(), "");
}

// ---- numbers from the power daemon, whatever they are

TEST_F(ThisDeviceTest, TheAverageOfTwoChargesCannotOverflow) {
    TD::SetActivePowerSource(1);
    TD::SetBatteryTypes(1, 1);
    // (2147483647 + 1 + 1) / 2 overflowed a 32-bit sum
    TD::SetBatteryChargePercentages(2147483647, 1);
    EXPECT_EQ(TD::DeviceBatteryStatus(), 4);
    TD::SetBatteryChargePercentages(2147483647, 2147483647);
    EXPECT_EQ(TD::DeviceBatteryStatus(), 4);
    TD::SetBatteryChargePercentages(INT32_MIN, INT32_MIN);
    EXPECT_EQ(TD::DeviceBatteryStatus(), 0);
}

TEST_F(ThisDeviceTest, TheAverageRoundsAsItAlwaysDid) {
    TD::SetActivePowerSource(1);
    TD::SetBatteryTypes(1, 1);
    // (a + b + 1) / 2, truncated toward zero: the thresholds 6, 21, 26 and 61 are met exactly
    const struct {
        int32_t first, second;
        uint16_t status;
    } cases[] = {{5, 6, 1},   {5, 5, 0},   {20, 21, 2}, {20, 20, 1}, {25, 26, 3},
                 {60, 61, 4}, {60, 60, 3}, {-3, 0, 0},  {12, -1, 1}, {-12, 24, 1}};
    for (const auto& c : cases) {
        TD::SetBatteryChargePercentages(c.first, c.second);
        EXPECT_EQ(TD::DeviceBatteryStatus(), c.status) << c.first << ", " << c.second;
    }
}
