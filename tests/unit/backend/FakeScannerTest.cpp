// The fake scanner that owners of a Backend::Scanner are tested with.

#include "test_support/FakeScanner.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "backend/TinybScanner.h"
#include "scanned_device/ScannedDevice.h"

using ::testing::ElementsAre;
using TestSupport::FakeScanner;

static_assert(std::is_base_of_v<Backend::Scanner, Backend::TinybScanner>);
static_assert(std::is_base_of_v<Backend::ScannerInterface, Backend::Scanner>);
static_assert(!std::has_virtual_destructor_v<Backend::Scanner>);

namespace {

std::shared_ptr<ScannedDevice::Base> Device(const std::string& mac) {
    auto device = std::make_shared<ScannedDevice::Base>();
    device->SetMac(mac);
    return device;
}

class FakeScannerTest : public ::testing::Test {
  protected:
    std::shared_ptr<FakeScanner> fake = std::make_shared<FakeScanner>();
    // What an owner holds.
    std::shared_ptr<Backend::Scanner> scanner = fake;
};

}  // namespace

TEST_F(FakeScannerTest, CountsPassesAndReturnsTheConfiguredResult) {
    EXPECT_EQ(fake->ScanCalls(), 0);
    EXPECT_EQ(scanner->Scan(), 0);
    fake->scanResult = -1;
    EXPECT_EQ(scanner->Scan(), -1);
    EXPECT_EQ(fake->ScanCalls(), 2);
}

TEST_F(FakeScannerTest, DevicesAreWhatTheTestPutsThere) {
    EXPECT_TRUE(scanner->Devices().empty());
    fake->devices.push_back(Device("AA:00:00:00:00:01"));
    fake->devices.push_back(Device("AA:00:00:00:00:02"));
    ASSERT_EQ(scanner->Devices().size(), 2u);
    EXPECT_EQ(scanner->Devices()[1]->Mac(), "AA:00:00:00:00:02");
}

TEST_F(FakeScannerTest, APassCanChangeTheListAndAnnounceACamera) {
    std::vector<std::string> announced;
    scanner->NewRemoteCamera().connect([&](const std::string& json) { announced.push_back(json); });
    fake->onScan = [](FakeScanner& self) {
        self.devices.push_back(Device("C0:FF:EE:00:00:07"));
        self.AnnounceRemoteCamera(R"({"mac":"C0:FF:EE:00:00:07"})");
    };
    EXPECT_EQ(scanner->Scan(), 0);
    ASSERT_EQ(scanner->Devices().size(), 1u);
    EXPECT_THAT(announced, ElementsAre(R"({"mac":"C0:FF:EE:00:00:07"})"));
}

TEST_F(FakeScannerTest, NothingIsAnnouncedUnlessTheTestSaysSo) {
    int announcements = 0;
    scanner->NewRemoteCamera().connect([&](const std::string&) { ++announcements; });
    fake->devices.push_back(Device("C0:FF:EE:00:00:07"));
    scanner->Scan();
    EXPECT_EQ(announcements, 0);
}

TEST_F(FakeScannerTest, UsableAsConfigured) {
    EXPECT_TRUE(scanner->IsUsable());
    fake->usable = false;
    EXPECT_FALSE(scanner->IsUsable());
}

// A scan task on its own thread while the test reads the count; run under ThreadSanitizer.
TEST_F(FakeScannerTest, TheCountMayBeReadFromAnotherThread) {
    std::thread task([this] {
        for (int pass = 0; pass < 100; ++pass)
            scanner->Scan();
    });
    while (fake->ScanCalls() < 100)
        std::this_thread::yield();
    task.join();
    EXPECT_EQ(fake->ScanCalls(), 100);
}
