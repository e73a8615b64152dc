#include <gtest/gtest.h>

#include "Bytes.h"
#include "remote_camera/CameraProtocol.h"

using namespace CameraProtocol;

TEST(CameraCommands, ReadCommandsAreTwoLettersAndCarriageReturn) {
    EXPECT_EQ(ReadVersionCommand(), (Bytes{'R', 'V', 0x0D}));
    EXPECT_EQ(ReadPowerCommand(), (Bytes{'R', 'P', 0x0D}));
    EXPECT_EQ(ReadWiFiCommand(), (Bytes{'R', 'F', 0x0D}));
}

TEST(CameraCommands, WritePowerPutsTheLetterInPlaceOfX) {
    EXPECT_EQ(WritePowerCommand('Y'), (Bytes{0x57, 0x50, 0x59, 0x0D}));
    EXPECT_EQ(WritePowerCommand('Z'), (Bytes{'W', 'P', 'Z', 0x0D}));
    // The letter is not checked.
    EXPECT_EQ(WritePowerCommand('q'), (Bytes{'W', 'P', 'q', 0x0D}));
    EXPECT_EQ(WritePowerCommand(0x00), (Bytes{'W', 'P', 0x00, 0x0D}));
}

TEST(CameraCommands, WriteWiFiPutsTheFrequencyAndTheBandSuffix) {
    EXPECT_EQ(WriteWiFiCommand("2.4"), (Bytes{0x57, 0x46, 0x32, 0x2E, 0x34, 0x47, 0x0D}));
    EXPECT_EQ(WriteWiFiCommand("5.0"), (Bytes{'W', 'F', '5', '.', '0', 'G', 0x0D}));
}

TEST(CameraCommands, WriteWiFiTakesAFrequencyOfAnyLength) {
    EXPECT_EQ(WriteWiFiCommand("2.45"), B("WF2.45G\r"));
    EXPECT_EQ(WriteWiFiCommand("5"), B("WF5G\r"));
    EXPECT_EQ(WriteWiFiCommand(""), B("WFG\r"));
}

TEST(CameraCommands, WriteWiFiReplacesTheFirstUOfTheFilledText) {
    // A "U" inside the frequency comes first, so it takes the suffix and the template's own "U" stays.
    EXPECT_EQ(WriteWiFiCommand("U.0"), B("WFG.0U\r"));
}

TEST(CameraClassifiers, VersionAnswerIsFourBytesStartingWithV) {
    EXPECT_TRUE(IsVersionAnswer(B("V12\r")));
    EXPECT_TRUE(IsVersionAnswer(B("Vxyz")));
    EXPECT_FALSE(IsVersionAnswer(B("V1\r")));
    EXPECT_FALSE(IsVersionAnswer(B("V123\r")));
    EXPECT_FALSE(IsVersionAnswer(B("v12\r")));
    EXPECT_FALSE(IsVersionAnswer(B("P12\r")));
    EXPECT_FALSE(IsVersionAnswer({}));
}

TEST(CameraClassifiers, PowerAnswerIsThreeBytesStartingWithP) {
    EXPECT_TRUE(IsPowerAnswer(B("PZ\r")));
    EXPECT_FALSE(IsPowerAnswer(B("PZ")));
    EXPECT_FALSE(IsPowerAnswer(B("PZ\r\r")));
    EXPECT_FALSE(IsPowerAnswer(B("VZ\r")));
    EXPECT_FALSE(IsPowerAnswer({}));
}

TEST(CameraClassifiers, WiFiAnswerIsSixBytesStartingWithF) {
    EXPECT_TRUE(IsWiFiAnswer(B("F5.0R\r")));
    EXPECT_FALSE(IsWiFiAnswer(B("F5.0R")));
    EXPECT_FALSE(IsWiFiAnswer(B("F5.0R\r\r")));
    EXPECT_FALSE(IsWiFiAnswer(B("P5.0R\r")));
    EXPECT_FALSE(IsWiFiAnswer({}));
}

TEST(CameraClassifiers, FourByteValuesStartingWithFOrPAreNoAnswer) {
    for (const Bytes& value : {B("F5.0"), B("PZ\r\r")}) {
        EXPECT_FALSE(IsVersionAnswer(value));
        EXPECT_FALSE(IsPowerAnswer(value));
        EXPECT_FALSE(IsWiFiAnswer(value));
    }
}

TEST(CameraParsers, VersionIsTheTwoDigitsAsDecimal) {
    EXPECT_EQ(ParseVersion(B("V12\r")), 12);
    EXPECT_EQ(ParseVersion(B("V07\r")), 7);
    EXPECT_EQ(ParseVersion(B("V99\r")), 99);
}

TEST(CameraParsers, VersionStopsAtTheFirstNonDigitAndIgnoresTheLastByte) {
    EXPECT_EQ(ParseVersion(B("V1x\r")), 1);
    EXPECT_EQ(ParseVersion(B("Vx1\r")), 0);
    EXPECT_EQ(ParseVersion(B("V\r\r\r")), 0);
    EXPECT_EQ(ParseVersion(B("V345")), 34);  // only bytes 1 and 2 are converted
}

TEST(CameraParsers, VersionConvertsLikeStrtolAndIsMaskedToEightBits) {
    EXPECT_EQ(ParseVersion(B("V 7\r")), 7);    // leading blank skipped
    EXPECT_EQ(ParseVersion(B("V+5\r")), 5);    // sign accepted
    EXPECT_EQ(ParseVersion(B("V-1\r")), 255);  // -1 masked to 8 bits
}

TEST(CameraParsers, VersionOfANonVersionAnswerIsZero) {
    EXPECT_EQ(ParseVersion(B("V1\r")), 0);
    EXPECT_EQ(ParseVersion(B("X12\r")), 0);
    EXPECT_EQ(ParseVersion({}), 0);
}

TEST(CameraParsers, PowerIsTheSecondByteOrFF) {
    EXPECT_EQ(ParsePower(B("PZ\r")), 'Z');
    EXPECT_EQ(ParsePower(B("PQ\r")), 'Q');
    EXPECT_EQ(ParsePower(B("PZ")), 0xFF);
    EXPECT_EQ(ParsePower(B("VZ\r")), 0xFF);
    EXPECT_EQ(ParsePower({}), 0xFF);
}

TEST(CameraParsers, WiFiGivesTheStateLetterAndTheFrequency) {
    std::string frequency = "old";
    EXPECT_EQ(ParseWiFi(B("F5.0R\r"), frequency), 'R');
    EXPECT_EQ(frequency, "5.0");
    EXPECT_EQ(ParseWiFi(B("F2.4C\r"), frequency), 'C');
    EXPECT_EQ(frequency, "2.4");
}

TEST(CameraParsers, WiFiOfANonWiFiAnswerIsUnavailableWithAnEmptyFrequency) {
    std::string frequency = "5.0";
    EXPECT_EQ(ParseWiFi(B("F5.0R"), frequency), 'G');
    EXPECT_EQ(frequency, "");
    frequency = "2.4";
    EXPECT_EQ(ParseWiFi({}, frequency), 'G');
    EXPECT_EQ(frequency, "");
}

TEST(CameraStateNames, PowerLetters) {
    EXPECT_EQ(PowerStateName('Z'), "On");
    EXPECT_EQ(PowerStateName('U'), "Off");
    EXPECT_EQ(PowerStateName('Y'), "Standby");
    EXPECT_EQ(PowerStateName('z'), "Unknown");
    EXPECT_EQ(PowerStateName(0), "Unknown");
    EXPECT_EQ(PowerStateName(0xFF), "Unknown");
}

TEST(CameraStateNames, WiFiLetters) {
    EXPECT_EQ(WiFiStateName('G'), "Unavailable");
    EXPECT_EQ(WiFiStateName('B'), "Booting");
    EXPECT_EQ(WiFiStateName('R'), "Ready");
    EXPECT_EQ(WiFiStateName('C'), "Connected");
    EXPECT_EQ(WiFiStateName('r'), "Unknown");
    EXPECT_EQ(WiFiStateName(0), "Unknown");
    EXPECT_EQ(WiFiStateName(0xC7), "Unknown");  // 'G' with the top bit set
}
