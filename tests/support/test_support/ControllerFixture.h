#pragma once
// The controller on fakes of its three backends and of the sibling daemons, with a real sd-event loop
// for its timer. Every backend call, sibling call and sleep lands in one journal, in the order made.

#include <gtest/gtest.h>
#include <systemd/sd-event.h>
#include <time.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "controller/BluetoothController.h"
#include "logging/Log.h"
#include "scan_response/ThisDevice.h"
#include "test_support/FakeAdvertiser.h"
#include "test_support/FakeRadio.h"
#include "test_support/FakeScanner.h"
#include "test_support/LoopHelpers.h"

namespace ControllerTest {

using Journal = std::vector<std::string>;

// CLOCK_MONOTONIC now, in microseconds, as the daemon's own clock reads it.
inline uint64_t MonotonicNowUsec() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000u + static_cast<uint64_t>(now.tv_nsec) / 1'000u;
}

class ControllerFixture : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_GE(sd_event_new(&loop), 0);
        // an hour past the real clock: a period the fake clock arms never comes due while a test runs
        // the loop, however long the machine has been up
        nowUsec = MonotonicNowUsec() + 3'600'000'000ULL;
        ScanResponse::Utils::ThisDevice::ResetForTests();
        radio->journal = journal;
        scanner->journal = journal;
        advertiser->journal = journal;
    }

    void TearDown() override {
        controller.reset();
        sd_event_unref(loop);
        ScanResponse::Utils::ThisDevice::ResetForTests();
    }

    ControllerHooks Hooks() {
        ControllerHooks hooks;
        hooks.makeRadio = [this] { return radio; };
        hooks.makeScanner = [this] { return scanner; };
        hooks.makeAdvertiser = [this] { return advertiser; };
        hooks.listenSettings = [this](Settingsd::SettingsDaemonDbusHandler&) {
            journal->push_back("listen settings");
            return listenResult;
        };
        hooks.listenPower = [this](Pylond::PylonDaemonDbusHandler&) {
            journal->push_back("listen power");
            return listenResult;
        };
        hooks.listenNetwork = [this](Networkd::NetworkDaemonDbusHandler&) {
            journal->push_back("listen network");
            return listenResult;
        };
        hooks.readNumberSetting = [this](const char* key, uint32_t safeDefault) {
            const auto it = numbers.find(key);
            return it == numbers.end() ? safeDefault : it->second;
        };
        hooks.readFlagSetting = [this](const char* key, bool safeDefault) {
            const auto it = flags.find(key);
            return it == flags.end() ? safeDefault : it->second;
        };
        hooks.readPowerProperties = [this](sdbus_utils::TypedPropertyMap& properties) {
            journal->push_back("read power");
            if (powerReadResult >= 0)
                properties = powerProperties;
            return powerReadResult;
        };
        hooks.readNetworkProperties = [this](sdbus_utils::TypedPropertyMap& properties) {
            journal->push_back("read network");
            if (networkReadResult >= 0)
                properties = networkProperties;
            return networkReadResult;
        };
        hooks.followSibling = [this](DbusHelper::DbusListener&, const char* service,
                                     std::function<void()> appeared) {
            journal->push_back(std::string("follow ") + service);
            siblingAppeared[service] = std::move(appeared);
            return followResult;
        };
        hooks.readSettingsSection = [this](sdbus_utils::TypedPropertyMap& settings) {
            journal->push_back("read settings");
            if (settingsReadResult >= 0)
                settings = settingsSection;
            return settingsReadResult;
        };
        hooks.sleep = [this](std::chrono::milliseconds duration) {
            journal->push_back("sleep " + std::to_string(duration.count()) + " ms");
            if (onSleep)
                onSleep(duration);
        };
        hooks.radioType = [this] { return radioType; };
        if (realClock)
            hooks.monotonicNowUsec = MonotonicNowUsec;
        else
            hooks.monotonicNowUsec = [this] { return nowUsec; };
        return hooks;
    }

    BluetoothController& Make() {
        controller = std::make_unique<BluetoothController>(loop, Hooks());
        return *controller;
    }

    // Constructed and initialised, with the journal and the fakes' call lists emptied afterwards.
    BluetoothController& MakeInitialised() {
        Make();
        EXPECT_TRUE(controller->Initialise());
        Forget();
        return *controller;
    }

    void Forget() {
        journal->clear();
        radio->calls.clear();
        advertiser->calls.clear();
    }

    // Runs loop iterations until `condition` holds, for at most `limit`.
    template <typename Condition>
    bool RunLoopUntil(Condition condition,
                      std::chrono::milliseconds limit = std::chrono::milliseconds(3000)) {
        return BusTest::PumpUntil(loop, condition, limit);
    }

    sd_event* loop = nullptr;
    std::shared_ptr<Journal> journal = std::make_shared<Journal>();
    std::shared_ptr<TestSupport::FakeRadio> radio = std::make_shared<TestSupport::FakeRadio>();
    std::shared_ptr<TestSupport::FakeScanner> scanner = std::make_shared<TestSupport::FakeScanner>();
    std::shared_ptr<TestSupport::FakeAdvertiser> advertiser = std::make_shared<TestSupport::FakeAdvertiser>();

    // Settings the settings daemon has; the others are read as their safe defaults.
    std::map<std::string, uint32_t> numbers;
    std::map<std::string, bool> flags;
    int listenResult = 0;
    int powerReadResult = -ENOTCONN;
    int networkReadResult = -ENOTCONN;
    sdbus_utils::TypedPropertyMap powerProperties;
    sdbus_utils::TypedPropertyMap networkProperties;
    // What the controller does when a sibling's name gets an owner, by the sibling's service name.
    std::map<std::string, std::function<void()>> siblingAppeared;
    int followResult = 0;
    // The whole "bluetooth" section, as read when the bus returns or the settings daemon appears.
    int settingsReadResult = -ENOTCONN;
    sdbus_utils::TypedPropertyMap settingsSection;

    // This unit's radio type, as the identity source tells it.
    int radioType = 0;
    // Runs inside every sleep, after it was journaled (a test that holds a worker there).
    std::function<void(std::chrono::milliseconds)> onSleep;

    // The clock the auto-scan period re-arms from, unless realClock.
    uint64_t nowUsec = 0;
    bool realClock = false;

    std::unique_ptr<BluetoothController> controller;
};

inline sdbus_utils::TypedPropertyMap Map(
    std::initializer_list<std::pair<const std::string, std::pair<std::string, std::any>>> entries) {
    return sdbus_utils::TypedPropertyMap(entries);
}

}  // namespace ControllerTest
