#include "remote_camera/KelpBleManager.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/time.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "logging/Log.h"
#include "loop/Sleep.h"
#include "scanned_device/RemoteCamera.h"
#include "scanned_device/ScannedDevice.h"
#include "test_support/FakeRadio.h"
#include "test_support/TestEnv.h"

using ::testing::ElementsAre;
using TestSupport::FakeRadio;
using TestSupport::GattWrite;
using namespace std::chrono_literals;

namespace {

constexpr const char* kMac = "C0:FF:EE:00:00:07";

std::shared_ptr<ScannedDevice::RemoteCamera> MakeCamera(uint16_t deviceType, const std::string& mac,
                                                        const std::string& name = "KelpCam-7") {
    auto camera = std::make_shared<ScannedDevice::RemoteCamera>();
    camera->SetDeviceType(deviceType);
    camera->SetMac(mac);
    camera->SetName(name);
    return camera;
}

class Kelp : public ::testing::Test {
  protected:
    void SetUp() override {
        manager = std::make_unique<KelpBleManager>(radio, [this](std::chrono::milliseconds duration) {
            sleeps.push_back(duration);
            if (onSleep)
                onSleep(sleeps.size());
        });
        manager->NewData().connect([this](const std::string& json) {
            std::lock_guard<std::mutex> lock(newDataMutex);
            newData.push_back(json);
        });
    }

    std::vector<std::string> NewData() {
        std::lock_guard<std::mutex> lock(newDataMutex);
        return newData;
    }

    std::vector<std::string> WrittenValues() const {
        std::vector<std::string> values;
        for (const GattWrite& write : radio->writes)
            values.push_back(write.value);
        return values;
    }

    size_t SleepsOf(std::chrono::milliseconds duration) const {
        size_t count = 0;
        for (auto sleep : sleeps)
            count += sleep == duration ? 1 : 0;
        return count;
    }

    std::shared_ptr<FakeRadio> radio = std::make_shared<FakeRadio>();
    std::vector<std::chrono::milliseconds> sleeps;
    // Runs at each sleep (1-based number): the time in which the camera acts.
    std::function<void(size_t)> onSleep;
    std::unique_ptr<KelpBleManager> manager;
    std::shared_ptr<ScannedDevice::RemoteCamera> camera = MakeCamera(7, kMac);
    std::mutex newDataMutex;
    std::vector<std::string> newData;
};

}  // namespace

// ---------------------------------------------------------------- the type-7 gate

TEST(KelpGate, OnlyARemoteCameraOfType7IsARemoteCamera) {
    EXPECT_TRUE(KelpBleManager::IsRemoteCamera(MakeCamera(7, kMac)));
    EXPECT_FALSE(KelpBleManager::IsRemoteCamera(MakeCamera(3, kMac)));
    EXPECT_FALSE(KelpBleManager::IsRemoteCamera(MakeCamera(0, kMac)));
    EXPECT_FALSE(KelpBleManager::IsRemoteCamera(MakeCamera(0x107, kMac)));
    auto plain = std::make_shared<ScannedDevice::Base>();
    plain->SetMac(kMac);
    EXPECT_FALSE(KelpBleManager::IsRemoteCamera(plain));
    EXPECT_FALSE(KelpBleManager::IsRemoteCamera(nullptr));
}

TEST_F(Kelp, Type3DeviceIsRefusedAtOnceByEveryOperation) {
    auto other = MakeCamera(3, "AA:BB:CC:DD:EE:03");
    other->SetPowerState('U');
    other->SetWiFiState('B');
    Logging::Capture capture;

    EXPECT_FALSE(manager->Subscribe(other));
    std::string json = "untouched";
    EXPECT_FALSE(manager->ReadBleInfo(other, json));
    EXPECT_EQ(json, "untouched");
    EXPECT_FALSE(manager->ConfigurePowerState(other, 'Z', 2));
    EXPECT_FALSE(manager->ConfigureWiFiFrequency(other, "5.0", 5));
    EXPECT_FALSE(manager->WaitForWiFi(other, 20));

    EXPECT_TRUE(radio->calls.empty()) << ::testing::PrintToString(radio->calls);
    EXPECT_TRUE(radio->writes.empty());
    EXPECT_TRUE(sleeps.empty());
    // WaitForWiFi still reports its failure, and only that.
    const auto lines = capture.Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].priority, LOG_ERR);
    EXPECT_EQ(lines[0].text, "Kelp WiFi is still not ready after 20 seconds");
}

TEST_F(Kelp, UnsubscribeWorksByAddressAloneEvenForAnotherDeviceType) {
    ASSERT_TRUE(manager->Subscribe(camera));
    // Same address, but a record that would fail the type test.
    auto sameAddress = MakeCamera(3, kMac);
    radio->calls.clear();
    EXPECT_TRUE(manager->Unsubscribe(sameAddress));
    EXPECT_THAT(radio->calls, ElementsAre("notifying?", "disable", std::string("disconnect ") + kMac));
}

// ---------------------------------------------------------------- the subscription map

TEST_F(Kelp, UnsubscribingAnAddressNeverSubscribedThrowsMapAt) {
    try {
        manager->Unsubscribe(camera);
        FAIL() << "no exception";
    } catch (const std::out_of_range& e) {
        EXPECT_STREQ(e.what(), "map::at");
    }
    EXPECT_TRUE(radio->calls.empty()) << "nothing reaches the radio";
}

TEST_F(Kelp, UnsubscribingTwiceThrowsTheSecondTime) {
    ASSERT_TRUE(manager->Subscribe(camera));
    EXPECT_TRUE(manager->Unsubscribe(camera));
    EXPECT_THROW(manager->Unsubscribe(camera), std::out_of_range);
}

TEST_F(Kelp, AFailedSubscribeLeavesNoEntry) {
    radio->discoveryResult = false;
    EXPECT_FALSE(manager->Subscribe(camera));
    EXPECT_THROW(manager->Unsubscribe(camera), std::out_of_range);
}

// ---------------------------------------------------------------- Subscribe

TEST_F(Kelp, SubscribeConnectsWaitsForDiscoveryAndEnablesNotificationsOnTheAnswerCharacteristic) {
    EXPECT_TRUE(manager->Subscribe(camera));
    const std::string mac = kMac;
    EXPECT_THAT(radio->calls, ElementsAre("connect " + mac, "discover " + mac + " 7",
                                          "characteristic " + mac + " fdeafdea fdea0002", "enable"));
    EXPECT_TRUE(radio->writes.empty());
}

TEST_F(Kelp, SubscribeStopsAtAFailedConnection) {
    radio->connectResult = false;
    EXPECT_FALSE(manager->Subscribe(camera));
    EXPECT_THAT(radio->calls, ElementsAre(std::string("connect ") + kMac));
}

TEST_F(Kelp, SubscribeStopsAtAFailedServiceDiscovery) {
    radio->discoveryResult = false;
    EXPECT_FALSE(manager->Subscribe(camera));
    EXPECT_EQ(radio->calls.size(), 2u);
    EXPECT_EQ(radio->calls.back(), std::string("discover ") + kMac + " 7");
}

TEST_F(Kelp, SubscribeWithoutTheAnswerCharacteristicFails) {
    radio->characteristicPresent = false;
    EXPECT_FALSE(manager->Subscribe(camera));
    EXPECT_EQ(radio->calls.back(), std::string("characteristic ") + kMac + " fdeafdea fdea0002");
}

TEST_F(Kelp, SubscribeReturnsTheResultOfEnablingNotifications) {
    radio->enableResult = false;
    EXPECT_FALSE(manager->Subscribe(camera));
    EXPECT_EQ(radio->calls.back(), "enable");
}

TEST_F(Kelp, NotificationsUpdateTheSubscribedCameraAndAnnounceItsDocument) {
    ASSERT_TRUE(manager->Subscribe(camera));

    ASSERT_TRUE(radio->Notify("V12\r"));
    EXPECT_EQ(camera->BleVersion(), 12);
    ASSERT_TRUE(radio->Notify("F5.0R\r"));
    EXPECT_EQ(camera->WiFiState(), 'R');
    EXPECT_EQ(camera->WiFiFrequency(), "5.0");
    ASSERT_TRUE(radio->Notify("PZ\r"));
    EXPECT_EQ(camera->PowerState(), 'Z');

    const auto documents = NewData();
    ASSERT_EQ(documents.size(), 3u);
    // Each carries the record as it was right after that answer was stored.
    EXPECT_EQ(nlohmann::json::parse(documents[0])["remote-cam-info"]["ble-info"]["bleVersion"], 12);
    EXPECT_EQ(nlohmann::json::parse(documents[0])["remote-cam-info"]["ble-info"]["powerStatus"]["code"], 0);
    EXPECT_EQ(nlohmann::json::parse(documents[1])["remote-cam-info"]["ble-info"]["wifiFrequency"], "5.0");
    EXPECT_EQ(documents[2], camera->ToJson().dump());
}

TEST_F(Kelp, EmptyAndUnknownValuesAnnounceNothing) {
    ASSERT_TRUE(manager->Subscribe(camera));
    Logging::Capture capture;
    ASSERT_TRUE(radio->Notify(TestSupport::GattBytes{}));
    ASSERT_TRUE(radio->Notify("PZ"));
    EXPECT_TRUE(NewData().empty());
    EXPECT_TRUE(capture.Contains("Unknown notification type found: 0x50", LOG_ERR));
    EXPECT_EQ(camera->PowerState(), 0);
}

TEST_F(Kelp, SubscribingAgainRoutesNotificationsToTheNewRecord) {
    ASSERT_TRUE(manager->Subscribe(camera));
    auto fresh = MakeCamera(7, kMac, "KelpCam-7 again");
    ASSERT_TRUE(manager->Subscribe(fresh));
    ASSERT_TRUE(radio->Notify("PY\r"));
    EXPECT_EQ(fresh->PowerState(), 'Y');
    EXPECT_EQ(camera->PowerState(), 0);
    // Still one entry for the address.
    EXPECT_TRUE(manager->Unsubscribe(fresh));
    EXPECT_THROW(manager->Unsubscribe(camera), std::out_of_range);
}

TEST_F(Kelp, TheRecordStaysAliveWhileSubscribed) {
    std::weak_ptr<ScannedDevice::RemoteCamera> watch = camera;
    ASSERT_TRUE(manager->Subscribe(camera));
    camera.reset();
    ASSERT_FALSE(watch.expired());
    ASSERT_TRUE(radio->Notify("PU\r"));
    EXPECT_EQ(watch.lock()->PowerState(), 'U');
}

// ---------------------------------------------------------------- Unsubscribe

TEST_F(Kelp, UnsubscribeSwitchesNotificationsOffThenDisconnects) {
    ASSERT_TRUE(manager->Subscribe(camera));
    radio->calls.clear();
    EXPECT_TRUE(manager->Unsubscribe(camera));
    EXPECT_THAT(radio->calls, ElementsAre("notifying?", "disable", std::string("disconnect ") + kMac));
    EXPECT_FALSE(radio->Notify("PZ\r")) << "the callback is withdrawn";
}

TEST_F(Kelp, UnsubscribeSkipsDisablingWhenNotNotifyingAndStillForgetsTheEntry) {
    ASSERT_TRUE(manager->Subscribe(camera));
    radio->DropNotifyingFlag();
    radio->calls.clear();
    EXPECT_TRUE(manager->Unsubscribe(camera));
    EXPECT_THAT(radio->calls, ElementsAre("notifying?", std::string("disconnect ") + kMac));
    // A registration left behind no longer reaches the record.
    ASSERT_TRUE(radio->Notify("PZ\r"));
    EXPECT_EQ(camera->PowerState(), 0);
    EXPECT_TRUE(NewData().empty());
    EXPECT_THROW(manager->Unsubscribe(camera), std::out_of_range);
}

TEST_F(Kelp, UnsubscribeReturnsTheDisconnectionResult) {
    ASSERT_TRUE(manager->Subscribe(camera));
    radio->disconnectResult = false;
    EXPECT_FALSE(manager->Unsubscribe(camera));
    EXPECT_THROW(manager->Unsubscribe(camera), std::out_of_range) << "the entry is gone all the same";
}

// ---------------------------------------------------------------- ReadBleInfo

TEST_F(Kelp, ReadBleInfoWritesTheThreeReadCommandsInOrderAndReturnsTheDocument) {
    camera->SetPowerState('U');
    std::string json;
    EXPECT_TRUE(manager->ReadBleInfo(camera, json));
    EXPECT_THAT(WrittenValues(), ElementsAre("RV\r", "RF\r", "RP\r"));
    for (const GattWrite& write : radio->writes) {
        EXPECT_EQ(write.mac, kMac);
        EXPECT_EQ(write.service, "fdeafdea");
        EXPECT_EQ(write.characteristic, "fdea0001");
        EXPECT_EQ(write.delayMs, 100);
    }
    EXPECT_EQ(json, camera->ToJson().dump());
    EXPECT_TRUE(sleeps.empty()) << "does not wait for the answers";
}

TEST_F(Kelp, ReadBleInfoReportsTheStateBeforeTheAnswersArrive) {
    ASSERT_TRUE(manager->Subscribe(camera));
    std::string json;
    EXPECT_TRUE(manager->ReadBleInfo(camera, json));
    EXPECT_EQ(nlohmann::json::parse(json)["remote-cam-info"]["ble-info"]["bleVersion"], 0);
    ASSERT_TRUE(radio->Notify("V07\r"));
    EXPECT_EQ(camera->BleVersion(), 7);
}

TEST_F(Kelp, ACameraAnsweringWithAnInvalidOctetIsStillReadAndAnnouncedAsValidText) {
    ASSERT_TRUE(manager->Subscribe(camera));
    // the Wi-Fi answer "F", 0xC0, "5.R\r": its frequency text is not UTF-8
    radio->onWrite = [this](const GattWrite& write) {
        if (write.value == "RF\r")
            radio->Notify(TestSupport::GattBytes{0x46, 0xC0, 0x35, 0x2E, 0x52, 0x0D});
    };
    std::string json;
    ASSERT_NO_THROW(EXPECT_TRUE(manager->ReadBleInfo(camera, json)));
    const std::string replaced =
        "\xEF\xBF\xBD"
        "5.";
    EXPECT_EQ(nlohmann::json::parse(json)["remote-cam-info"]["ble-info"]["wifiFrequency"], replaced);
    const auto announced = NewData();
    ASSERT_EQ(announced.size(), 1u);
    EXPECT_EQ(nlohmann::json::parse(announced[0])["remote-cam-info"]["ble-info"]["wifiFrequency"], replaced);
}

TEST_F(Kelp, ReadBleInfoFailsWhenAnyWriteFailsButSendsAllThree) {
    radio->writeResults = {true, false, true};
    std::string json = "untouched";
    EXPECT_FALSE(manager->ReadBleInfo(camera, json));
    EXPECT_EQ(json, "untouched");
    EXPECT_THAT(WrittenValues(), ElementsAre("RV\r", "RF\r", "RP\r"));
}

TEST_F(Kelp, ReadBleInfoFailsWhenTheLastWriteFails) {
    radio->writeResults = {true, true, false};
    std::string json;
    EXPECT_FALSE(manager->ReadBleInfo(camera, json));
    EXPECT_TRUE(json.empty());
}

// ---------------------------------------------------------------- ConfigurePowerState

TEST_F(Kelp, PowerWithSecondsZeroWritesOnceChecksOnceAndNeverSleeps) {
    camera->SetPowerState('U');
    EXPECT_FALSE(manager->ConfigurePowerState(camera, 'Z', 0));
    EXPECT_THAT(WrittenValues(), ElementsAre("WPZ\r"));
    EXPECT_EQ(radio->writes[0].characteristic, "fdea0001");
    EXPECT_EQ(radio->writes[0].delayMs, 100);
    EXPECT_TRUE(sleeps.empty());
}

TEST_F(Kelp, PowerWithSecondsZeroChecksOnceAfterTheWrite) {
    // The camera answers during the write: the single check comes after it, and nothing sleeps.
    camera->SetPowerState('U');
    radio->onWrite = [this](const GattWrite&) { camera->SetPowerState('Z'); };
    EXPECT_TRUE(manager->ConfigurePowerState(camera, 'Z', 0));
    EXPECT_EQ(radio->writes.size(), 1u);
    EXPECT_TRUE(sleeps.empty());
}

TEST_F(Kelp, PowerWithSecondsZeroSucceedsWhenTheStateIsAlreadyThere) {
    camera->SetPowerState('Z');
    EXPECT_TRUE(manager->ConfigurePowerState(camera, 'Z', 0));
    EXPECT_TRUE(sleeps.empty());
}

TEST_F(Kelp, PowerWaitsOneSecondPerCheckUntilTheCameraReports) {
    ASSERT_TRUE(manager->Subscribe(camera));
    camera->SetPowerState('U');
    onSleep = [this](size_t n) {
        if (n == 2)
            radio->Notify("PZ\r");
    };
    EXPECT_TRUE(manager->ConfigurePowerState(camera, 'Z', 5));
    EXPECT_EQ(sleeps.size(), 2u);
    EXPECT_EQ(SleepsOf(1000ms), 2u);
}

TEST_F(Kelp, PowerGivesUpAfterSecondsSleeps) {
    camera->SetPowerState('U');
    EXPECT_FALSE(manager->ConfigurePowerState(camera, 'Z', 2));
    EXPECT_EQ(sleeps.size(), 2u);
    EXPECT_EQ(SleepsOf(1000ms), 2u);
    EXPECT_EQ(radio->writes.size(), 1u);
}

TEST_F(Kelp, PowerSeesAnAnswerThatArrivesDuringTheLastSleep) {
    ASSERT_TRUE(manager->Subscribe(camera));
    camera->SetPowerState('U');
    onSleep = [this](size_t n) {
        if (n == 2)
            radio->Notify("PY\r");
    };
    EXPECT_TRUE(manager->ConfigurePowerState(camera, 'Y', 2));
    EXPECT_EQ(sleeps.size(), 2u);
}

TEST_F(Kelp, PowerFailedWriteReturnsAtOnce) {
    camera->SetPowerState('Z');
    radio->writeResults = {false};
    EXPECT_FALSE(manager->ConfigurePowerState(camera, 'Z', 2));
    EXPECT_TRUE(sleeps.empty());
}

// ---------------------------------------------------------------- ConfigureWiFiFrequency

TEST_F(Kelp, FrequencyWithSecondsFiveSleepsAtMostFiftyTimes) {
    camera->SetWiFiState('R');
    camera->SetWiFiFrequency("2.4");
    EXPECT_FALSE(manager->ConfigureWiFiFrequency(camera, "5.0", 5));
    EXPECT_THAT(WrittenValues(), ElementsAre("WF5.0G\r"));
    EXPECT_EQ(sleeps.size(), 50u);
    EXPECT_EQ(SleepsOf(250ms), 50u);
}

TEST_F(Kelp, FrequencySettledInConnectedIsAFailure) {
    ASSERT_TRUE(manager->Subscribe(camera));
    camera->SetWiFiState('R');
    camera->SetWiFiFrequency("2.4");
    radio->onWrite = [this](const GattWrite& write) {
        if (write.value == "WF5.0G\r")
            radio->Notify("F5.0C\r");
    };
    EXPECT_FALSE(manager->ConfigureWiFiFrequency(camera, "5.0", 5));
    EXPECT_TRUE(sleeps.empty()) << "'C' ends the wait at once";
    EXPECT_EQ(camera->WiFiFrequency(), "5.0");
    EXPECT_EQ(camera->WiFiState(), 'C');
}

TEST_F(Kelp, FrequencyWaitsWhileTheCameraBootsOnTheNewBand) {
    ASSERT_TRUE(manager->Subscribe(camera));
    camera->SetWiFiState('R');
    camera->SetWiFiFrequency("5.0");
    radio->onWrite = [this](const GattWrite&) { radio->Notify("F2.4B\r"); };
    onSleep = [this](size_t n) {
        if (n == 3)
            radio->Notify("F2.4R\r");
    };
    EXPECT_TRUE(manager->ConfigureWiFiFrequency(camera, "2.4", 5));
    EXPECT_THAT(WrittenValues(), ElementsAre("WF2.4G\r"));
    EXPECT_EQ(sleeps.size(), 3u);
}

TEST_F(Kelp, FrequencyAlreadyRightAndReadySucceedsWithoutWaiting) {
    camera->SetWiFiState('R');
    camera->SetWiFiFrequency("2.4");
    EXPECT_TRUE(manager->ConfigureWiFiFrequency(camera, "2.4", 5));
    EXPECT_EQ(radio->writes.size(), 1u) << "the command is sent all the same";
    EXPECT_TRUE(sleeps.empty());
}

TEST_F(Kelp, FrequencyWrongBandTimesOut) {
    ASSERT_TRUE(manager->Subscribe(camera));
    camera->SetWiFiState('R');
    camera->SetWiFiFrequency("2.4");
    radio->onWrite = [this](const GattWrite&) { radio->Notify("F2.4R\r"); };
    EXPECT_FALSE(manager->ConfigureWiFiFrequency(camera, "5.0", 1));
    EXPECT_EQ(sleeps.size(), 10u);
}

TEST_F(Kelp, FrequencyWithSecondsZeroChecksOnce) {
    camera->SetWiFiState('B');
    camera->SetWiFiFrequency("5.0");
    EXPECT_FALSE(manager->ConfigureWiFiFrequency(camera, "5.0", 0));
    EXPECT_TRUE(sleeps.empty());
}

TEST_F(Kelp, FrequencyFailedWriteReturnsAtOnce) {
    camera->SetWiFiState('R');
    camera->SetWiFiFrequency("5.0");
    radio->writeResults = {false};
    EXPECT_FALSE(manager->ConfigureWiFiFrequency(camera, "5.0", 5));
    EXPECT_TRUE(sleeps.empty());
}

// ---------------------------------------------------------------- WaitForWiFi

TEST_F(Kelp, WaitForWiFiAlreadyConnectedSucceedsAtOnce) {
    camera->SetWiFiState('C');
    Logging::Capture capture;
    EXPECT_TRUE(manager->WaitForWiFi(camera, 20));
    const auto lines = capture.Lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].priority, LOG_INFO);
    EXPECT_EQ(lines[0].text, "Current wifi state is: C");
    EXPECT_EQ(lines[1].priority, LOG_INFO);
    EXPECT_EQ(lines[1].text, "Kelp WiFi Ready to Connect!");
    EXPECT_EQ(capture.CountContaining("Waiting for wifi available"), 0u);
    EXPECT_TRUE(sleeps.empty());
    EXPECT_TRUE(radio->calls.empty()) << "sends nothing";
}

TEST_F(Kelp, WaitForWiFiStayingBootingForThreeSeconds) {
    camera->SetWiFiState('B');
    Logging::Capture capture;
    EXPECT_FALSE(manager->WaitForWiFi(camera, 3));
    const auto lines = capture.Lines();
    ASSERT_EQ(lines.size(), 5u);
    EXPECT_EQ(lines[0].text, "Current wifi state is: B");
    for (size_t i = 1; i <= 3; ++i) {
        EXPECT_EQ(lines[i].priority, LOG_INFO);
        EXPECT_EQ(lines[i].text, "Waiting for wifi available... state = B");
    }
    EXPECT_EQ(lines[4].priority, LOG_ERR);
    EXPECT_EQ(lines[4].text, "Kelp WiFi is still not ready after 3 seconds");
    EXPECT_EQ(sleeps.size(), 3u);
    EXPECT_EQ(SleepsOf(1000ms), 3u);
    EXPECT_TRUE(radio->calls.empty()) << "sends nothing";
}

TEST_F(Kelp, WaitForWiFiFollowsUnsolicitedNotifications) {
    ASSERT_TRUE(manager->Subscribe(camera));
    camera->SetWiFiState('G');
    radio->calls.clear();
    onSleep = [this](size_t n) {
        if (n == 1)
            radio->Notify("F5.0B\r");
        if (n == 3)
            radio->Notify("F5.0R\r");
    };
    Logging::Capture capture;
    EXPECT_TRUE(manager->WaitForWiFi(camera, 20));
    EXPECT_EQ(sleeps.size(), 3u);
    EXPECT_EQ(capture.Count("Waiting for wifi available... state = G", LOG_INFO), 1u);
    EXPECT_EQ(capture.Count("Waiting for wifi available... state = B", LOG_INFO), 2u);
    EXPECT_TRUE(capture.Contains("Kelp WiFi Ready to Connect!", LOG_INFO));
    EXPECT_TRUE(radio->calls.empty()) << "sends nothing";
}

TEST_F(Kelp, WaitForWiFiReadyAfterTheLastSleepStillCounts) {
    ASSERT_TRUE(manager->Subscribe(camera));
    camera->SetWiFiState('B');
    onSleep = [this](size_t n) {
        if (n == 2)
            radio->Notify("F2.4R\r");
    };
    EXPECT_TRUE(manager->WaitForWiFi(camera, 2));
    EXPECT_EQ(sleeps.size(), 2u);
}

TEST_F(Kelp, WaitForWiFiOnACameraThatNeverReportedFailsWithoutWaiting) {
    Logging::Capture capture;
    EXPECT_FALSE(manager->WaitForWiFi(camera, 20));
    EXPECT_TRUE(sleeps.empty());
    EXPECT_TRUE(capture.Contains("Kelp WiFi is still not ready after 20 seconds", LOG_ERR));
}

TEST_F(Kelp, WaitForWiFiWithSecondsZeroDoesNotWait) {
    camera->SetWiFiState('G');
    Logging::Capture capture;
    EXPECT_FALSE(manager->WaitForWiFi(camera, 0));
    EXPECT_TRUE(sleeps.empty());
    EXPECT_EQ(capture.CountContaining("Waiting for wifi available"), 0u);
    EXPECT_TRUE(capture.Contains("Kelp WiFi is still not ready after 0 seconds", LOG_ERR));
}

// ---------------------------------------------------------------- threads

// Values arrive on another thread while the worker polls the record; run under ThreadSanitizer.
TEST(KelpThreads, NotificationsFromTheBleThreadReachTheWorkersPollingLoop) {
    auto radio = std::make_shared<FakeRadio>();
    KelpBleManager manager(radio, [](std::chrono::milliseconds) { std::this_thread::sleep_for(1ms); });
    std::atomic<int> documents{0};
    manager.NewData().connect([&](const std::string& json) {
        if (!json.empty())
            ++documents;
    });
    auto camera = MakeCamera(7, kMac);
    camera->SetWiFiState('G');
    camera->SetPowerState('U');
    ASSERT_TRUE(manager.Subscribe(camera));

    std::thread ble([&] {
        for (const char* value : {"PZ\r", "F5.0G\r", "F5.0B\r", "V12\r", "F5.0R\r"}) {
            std::this_thread::sleep_for(5ms);
            radio->Notify(value);
        }
    });
    const bool powered = manager.ConfigurePowerState(camera, 'Z', 100000);
    const bool ready = manager.WaitForWiFi(camera, 100000);
    ble.join();

    EXPECT_TRUE(powered);
    EXPECT_TRUE(ready);
    EXPECT_EQ(camera->WiFiFrequency(), "5.0");
    EXPECT_EQ(documents.load(), 5);
    EXPECT_TRUE(manager.Unsubscribe(camera));
}

TEST(KelpThreads, UnsubscribeWhileValuesArriveIsSafe) {
    auto radio = std::make_shared<FakeRadio>();
    KelpBleManager manager(radio, [](std::chrono::milliseconds) {});
    auto camera = MakeCamera(7, kMac);
    Logging::SetStderrEcho(false);  // thousands of "Power Status" lines otherwise
    for (int round = 0; round < 20; ++round) {
        camera->SetPowerState('U');
        ASSERT_TRUE(manager.Subscribe(camera));
        std::atomic<bool> stop{false};
        std::thread ble([&] {
            while (!stop.load())
                radio->Notify("PZ\r");
        });
        ASSERT_TRUE(TestSupport::WaitUntil([&] { return camera->PowerState() == 'Z'; }));
        radio->DropNotifyingFlag();  // the callback stays registered: values keep coming during the erase
        EXPECT_TRUE(manager.Unsubscribe(camera));
        stop = true;
        ble.join();
        // What still arrives through the stale registration reaches nobody.
        camera->SetPowerState('U');
        EXPECT_TRUE(radio->Notify("PZ\r"));
        EXPECT_EQ(camera->PowerState(), 'U');
    }
    Logging::SetStderrEcho(true);
}

TEST(KelpThreads, AManagerGoneBeforeALateValueIsHarmless) {
    auto radio = std::make_shared<FakeRadio>();
    auto camera = MakeCamera(7, kMac);
    {
        KelpBleManager manager(radio, [](std::chrono::milliseconds) {});
        manager.NewData().connect([](const std::string&) { FAIL() << "no manager, no announcement"; });
        ASSERT_TRUE(manager.Subscribe(camera));
    }
    EXPECT_TRUE(radio->Notify("PZ\r"));
    EXPECT_EQ(camera->PowerState(), 0);
}

// ---------------------------------------------------------------- real sleeps and a missing radio

namespace {
std::atomic<int> alarms{0};
void OnAlarm(int) {
    ++alarms;
}
}  // namespace

TEST(KelpSleep, RealSleepLastsItsWholeTimeDespiteSignals) {
    struct sigaction action {};
    struct sigaction previous {};
    action.sa_handler = OnAlarm;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;  // no SA_RESTART: the sleep sees EINTR
    ASSERT_EQ(sigaction(SIGALRM, &action, &previous), 0);
    itimerval timer{};
    timer.it_value.tv_usec = 10000;
    timer.it_interval.tv_usec = 10000;
    alarms = 0;
    ASSERT_EQ(setitimer(ITIMER_REAL, &timer, nullptr), 0);

    const auto start = std::chrono::steady_clock::now();
    Loop::SleepFor(120ms);
    const auto elapsed = std::chrono::steady_clock::now() - start;

    itimerval off{};
    setitimer(ITIMER_REAL, &off, nullptr);
    sigaction(SIGALRM, &previous, nullptr);
    EXPECT_GE(alarms.load(), 1) << "the sleep was interrupted at least once";
    EXPECT_GE(elapsed, 120ms);
}

TEST(KelpRadio, WithoutARadioNothingReachesACamera) {
    KelpBleManager manager(nullptr, [](std::chrono::milliseconds) {});
    auto camera = MakeCamera(7, kMac);
    EXPECT_FALSE(manager.Subscribe(camera));
    std::string json = "untouched";
    EXPECT_FALSE(manager.ReadBleInfo(camera, json));
    EXPECT_EQ(json, "untouched");
    EXPECT_FALSE(manager.ConfigurePowerState(camera, 'Z', 0));
    EXPECT_FALSE(manager.ConfigureWiFiFrequency(camera, "5.0", 0));
    EXPECT_THROW(manager.Unsubscribe(camera), std::out_of_range);
}
