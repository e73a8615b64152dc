// Preparing a remote camera for use, and re-reading every camera's BLE information, on worker threads:
// the real camera manager over the fake radio, with a camera behind it that answers by notification.
#include <gmock/gmock.h>

#include <algorithm>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "controller/CameraWorkers.h"
#include "remote_camera/KelpBleManager.h"
#include "scanned_device/RemoteCamera.h"
#include "test_support/ControllerFixture.h"
#include "test_support/ControllerProbe.h"

using namespace ControllerTest;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

constexpr uint64_t kSecondUsec = 1'000'000;
constexpr const char* kCameraMac = "C0:FF:EE:00:00:01";
constexpr const char* kOtherCameraMac = "C0:FF:EE:00:00:02";

std::shared_ptr<ScannedDevice::RemoteCamera> Camera(const std::string& name, const std::string& mac,
                                                    uint16_t deviceType = 7) {
    auto camera = std::make_shared<ScannedDevice::RemoteCamera>();
    camera->SetName(name);
    camera->SetMac(mac);
    camera->SetDeviceType(deviceType);
    return camera;
}

// A camera behind the fake radio. It answers every command by notification at once, as the simulated
// one does; `obeyPower` and `obeyBand` false make it ignore those commands (answering its old state).
struct ScriptedCamera {
    char power = 'U';
    char wifi = 'R';
    std::string band = "2.4";
    bool obeyPower = true;
    bool obeyBand = true;

    void Behind(TestSupport::FakeRadio& radio) {
        radio.onWrite = [this, &radio](const TestSupport::GattWrite& write) { Answer(radio, write.value); };
    }

    void Answer(TestSupport::FakeRadio& radio, const std::string& command) {
        if (command == "RV\r") {
            radio.Notify("V12\r");
        } else if (command == "RF\r") {
            radio.Notify("F" + band + wifi + "\r");
        } else if (command == "RP\r") {
            radio.Notify(std::string("P") + power + "\r");
        } else if (command.rfind("WP", 0) == 0) {
            if (obeyPower)
                power = command[2];
            radio.Notify(std::string("P") + power + "\r");
        } else if (command.rfind("WF", 0) == 0) {
            if (obeyBand)
                band = command.substr(2, 3);
            radio.Notify("F" + band + wifi + "\r");
        }
    }
};

// Holds whoever calls Wait() until Open(); tells when someone is waiting.
class Gate {
  public:
    void Wait() {
        std::unique_lock<std::mutex> lock(mutex);
        ++waiting;
        changed.notify_all();
        changed.wait(lock, [this] { return open; });
    }
    bool AwaitWaiter(std::chrono::milliseconds limit = std::chrono::milliseconds(3000)) {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, limit, [this] { return waiting > 0; });
    }
    void Open() {
        std::lock_guard<std::mutex> lock(mutex);
        open = true;
        changed.notify_all();
    }

  private:
    std::mutex mutex;
    std::condition_variable changed;
    int waiting = 0;
    bool open = false;
};

struct Report {
    bool success;
    std::string json;
    std::thread::id thread;
};

std::vector<std::string> WrittenCommands(const TestSupport::FakeRadio& radio) {
    std::vector<std::string> commands;
    for (const auto& write : radio.writes)
        commands.push_back(write.value);
    return commands;
}

const std::vector<std::string> kStepNames = {"Connected To Bluetooth",    "Refreshed BLE Info",
                                             "Configured Power State",    "Waited for AP startup",
                                             "Configured WiFi Frequency", "Disconnected from Bluetooth"};

// The step names logged, in order.
std::vector<std::string> Steps(const Logging::Capture& capture) {
    std::vector<std::string> steps;
    for (const auto& line : capture.Lines()) {
        const auto at = line.text.find(": Time Elapsed: ");
        if (at != std::string::npos) {
            EXPECT_EQ(line.priority, LOG_INFO) << line.text;
            steps.push_back(line.text.substr(0, at));
        }
    }
    return steps;
}

std::vector<std::string> ErrorLines(const Logging::Capture& capture) {
    std::vector<std::string> lines;
    for (const auto& line : capture.Lines()) {
        if (line.priority == LOG_ERR)
            lines.push_back(line.text);
    }
    return lines;
}

}  // namespace

class CameraFlow : public ControllerFixture {
  protected:
    void SetUp() override {
        ControllerFixture::SetUp();
        camera = Camera("Kelp-1", kCameraMac);
        scripted.Behind(*radio);
    }

    BluetoothController& Ready() {
        MakeInitialised();
        controller->ConfiguredCamera().connect([this](bool success, std::string json) {
            reports.push_back({success, std::move(json), std::this_thread::get_id()});
        });
        return *controller;
    }

    // Starts the worker and runs the loop until its report arrives.
    Report Configure(const std::shared_ptr<ScannedDevice::RemoteCamera>& which) {
        const size_t before = reports.size();
        controller->ConfigureRemoteCamera(which);
        EXPECT_TRUE(RunLoopUntil([&] { return reports.size() > before; }));
        return reports.empty() ? Report{} : reports.back();
    }

    std::shared_ptr<ScannedDevice::RemoteCamera> camera;
    ScriptedCamera scripted;
    std::vector<Report> reports;
};

TEST_F(CameraFlow, AnOffCameraIsSwitchedOnWaitedForAndPutOnTheExpectedBand) {
    radioType = 1;
    scripted.power = 'U';
    scripted.band = "2.4";
    Ready();
    Logging::Capture capture;
    const Report report = Configure(camera);

    EXPECT_TRUE(report.success);
    EXPECT_THAT(WrittenCommands(*radio), ElementsAre("RV\r", "RF\r", "RP\r", "WPZ\r", "WF5.0G\r"));
    EXPECT_EQ(Steps(capture), kStepNames);
    EXPECT_EQ(radio->calls.front(), std::string("connect ") + kCameraMac);
    EXPECT_EQ(radio->calls.back(), std::string("disconnect ") + kCameraMac);
    EXPECT_EQ(camera->PowerState(), 'Z');
    EXPECT_EQ(camera->WiFiFrequency(), "5.0");
    // the report carries the camera's document as it stands at the end
    EXPECT_EQ(report.json, camera->ToJson().dump());
    EXPECT_THAT(ErrorLines(capture), IsEmpty());
}

TEST_F(CameraFlow, AStandbyCameraGetsNoPowerCommand) {
    scripted.power = 'Y';
    Ready();
    Logging::Capture capture;
    EXPECT_TRUE(Configure(camera).success);
    EXPECT_THAT(WrittenCommands(*radio), ElementsAre("RV\r", "RF\r", "RP\r"));
    EXPECT_THAT(Steps(capture), ElementsAre("Connected To Bluetooth", "Refreshed BLE Info",
                                            "Waited for AP startup", "Disconnected from Bluetooth"));
}

TEST_F(CameraFlow, ACameraAlreadyOnTheExpectedBandGetsNoFrequencyCommandAndSucceeds) {
    radioType = 1;
    scripted.power = 'Z';
    scripted.band = "5.0";
    Ready();
    EXPECT_TRUE(Configure(camera).success);
    const auto commands = WrittenCommands(*radio);
    EXPECT_EQ(std::count_if(commands.begin(), commands.end(),
                            [](const std::string& c) { return c.rfind("WF", 0) == 0; }),
              0);
}

TEST_F(CameraFlow, RadioTypeOneExpectsFiveGigahertzAndAnyOtherTwoPointFour) {
    EXPECT_STREQ(CameraWorkers::ExpectedWiFiFrequency(1), "5.0");
    for (int type : {0, 2, 3, -1})
        EXPECT_STREQ(CameraWorkers::ExpectedWiFiFrequency(type), "2.4") << type;

    // and the flow asks for it: type 2 puts a 5 GHz camera on 2.4
    radioType = 2;
    scripted.power = 'Z';
    scripted.band = "5.0";
    Ready();
    EXPECT_TRUE(Configure(camera).success);
    EXPECT_EQ(WrittenCommands(*radio).back(), "WF2.4G\r");
}

TEST_F(CameraFlow, AFailedConnectionTriesNothingElseAndReportsTheCamerasState) {
    radio->connectResult = false;
    Ready();
    Logging::Capture capture;
    const Report report = Configure(camera);
    EXPECT_FALSE(report.success);
    EXPECT_THAT(radio->calls, ElementsAre(std::string("connect ") + kCameraMac));
    EXPECT_THAT(Steps(capture), IsEmpty());
    // a camera never heard from: its letters are still zero
    const auto errors = ErrorLines(capture);
    ASSERT_EQ(errors.size(), 4u);
    EXPECT_EQ(errors[0], "Failed to configure Kelp-1 over BLE:");
    EXPECT_EQ(errors[1], "WiFi Frequency:  Expected: 2.4");
    EXPECT_EQ(errors[2].rfind("Power State:    ", 0), 0u);
    EXPECT_EQ(errors[3].rfind("WiFi State:     ", 0), 0u);
    EXPECT_EQ(report.json, camera->ToJson().dump());
}

TEST_F(CameraFlow, AFailedReadDisconnectsAndReportsWithoutPowerOrWiFiSteps) {
    radio->writeResults = {false};
    scripted.power = 'Y';
    Ready();
    Logging::Capture capture;
    EXPECT_FALSE(Configure(camera).success);
    EXPECT_THAT(Steps(capture),
                ElementsAre("Connected To Bluetooth", "Refreshed BLE Info", "Disconnected from Bluetooth"));
    EXPECT_EQ(radio->calls.back(), std::string("disconnect ") + kCameraMac);
    EXPECT_THAT(ErrorLines(capture),
                ElementsAre("Failed to configure Kelp-1 over BLE:", "WiFi Frequency: 2.4 Expected: 2.4",
                            "Power State:    Y Expected: Z/Y", "WiFi State:     R Expected: R/C"));
}

TEST_F(CameraFlow, ACameraThatStaysOffFailsAfterThePowerStep) {
    scripted.power = 'U';
    scripted.obeyPower = false;
    Ready();
    Logging::Capture capture;
    EXPECT_FALSE(Configure(camera).success);
    EXPECT_THAT(Steps(capture), ElementsAre("Connected To Bluetooth", "Refreshed BLE Info",
                                            "Configured Power State", "Disconnected from Bluetooth"));
    EXPECT_THAT(WrittenCommands(*radio), ElementsAre("RV\r", "RF\r", "RP\r", "WPZ\r"));
    // the power command's bound of 2: checked three times, a second apart
    EXPECT_EQ(std::count(journal->begin(), journal->end(), "sleep 1000 ms"), 2);
    EXPECT_EQ(radio->calls.back(), std::string("disconnect ") + kCameraMac);
    EXPECT_THAT(ErrorLines(capture),
                ElementsAre("Failed to configure Kelp-1 over BLE:", "WiFi Frequency: 2.4 Expected: 2.4",
                            "Power State:    U Expected: Z/Y", "WiFi State:     R Expected: R/C"));
}

TEST_F(CameraFlow, AnAccessPointThatNeverComesUpFailsWithoutABandCommand) {
    radioType = 1;
    scripted.power = 'Z';
    scripted.wifi = 'B';
    Ready();
    Logging::Capture capture;
    EXPECT_FALSE(Configure(camera).success);
    EXPECT_THAT(Steps(capture), ElementsAre("Connected To Bluetooth", "Refreshed BLE Info",
                                            "Waited for AP startup", "Disconnected from Bluetooth"));
    EXPECT_THAT(WrittenCommands(*radio), ElementsAre("RV\r", "RF\r", "RP\r"));
    // the access point's bound of 20 seconds
    EXPECT_EQ(std::count(journal->begin(), journal->end(), "sleep 1000 ms"), 20);
    EXPECT_TRUE(capture.Contains("Kelp WiFi is still not ready after 20 seconds", LOG_ERR));
    EXPECT_TRUE(capture.Contains("WiFi State:     B Expected: R/C", LOG_ERR));
    EXPECT_TRUE(capture.Contains("WiFi Frequency: 2.4 Expected: 5.0", LOG_ERR));
}

TEST_F(CameraFlow, ABandThatDoesNotChangeFailsAfterTheFrequencyStep) {
    radioType = 1;
    scripted.power = 'Z';
    scripted.obeyBand = false;
    Ready();
    Logging::Capture capture;
    EXPECT_FALSE(Configure(camera).success);
    EXPECT_EQ(Steps(capture), std::vector<std::string>({"Connected To Bluetooth", "Refreshed BLE Info",
                                                        "Waited for AP startup", "Configured WiFi Frequency",
                                                        "Disconnected from Bluetooth"}));
    // the frequency command's bound of 5 seconds, polled every 250 ms
    EXPECT_EQ(std::count(journal->begin(), journal->end(), "sleep 250 ms"), 50);
    EXPECT_EQ(radio->calls.back(), std::string("disconnect ") + kCameraMac);
    EXPECT_TRUE(capture.Contains("WiFi Frequency: 2.4 Expected: 5.0", LOG_ERR));
    EXPECT_TRUE(capture.Contains("Power State:    Z Expected: Z/Y", LOG_ERR));
}

TEST_F(CameraFlow, TheStepLogMeasuresEachStepFromThePreviousOne) {
    scripted.power = 'U';
    scripted.obeyPower = false;
    Ready();
    // the power step's two polls take a real 200 ms each; nothing else sleeps
    onSleep = [](std::chrono::milliseconds) { std::this_thread::sleep_for(std::chrono::milliseconds(200)); };
    Logging::Capture capture;
    EXPECT_FALSE(Configure(camera).success);
    std::vector<std::pair<std::string, unsigned long long>> steps;
    for (const auto& text : capture.Texts()) {
        const auto at = text.find(": Time Elapsed: ");
        if (at != std::string::npos)
            steps.emplace_back(text.substr(0, at), std::stoull(text.substr(at + 16)));
    }
    ASSERT_EQ(steps.size(), 4u);
    EXPECT_EQ(steps[2].first, "Configured Power State");
    EXPECT_GE(steps[2].second, 400u);
    // the stopwatch restarted at each step: the wait is not counted again
    EXPECT_LT(steps[0].second, 400u);
    EXPECT_LT(steps[1].second, 400u);
    EXPECT_LT(steps[3].second, 400u);
}

TEST_F(CameraFlow, TheReportAndTheCamerasNewDataReachTheLoopThreadInOrder) {
    scripted.power = 'U';
    Ready();
    std::vector<std::pair<std::string, std::thread::id>> newData;
    int changed = 0;
    std::vector<std::string> order;
    controller->NewCameraData().connect([&](const std::string& json) {
        newData.emplace_back(json, std::this_thread::get_id());
        order.push_back("data");
    });
    controller->RemoteCamerasChanged().connect([&] {
        ++changed;
        order.push_back("changed");
    });
    const Report report = Configure(camera);
    ASSERT_TRUE(RunLoopUntil([&] { return changed == 4; }));
    EXPECT_EQ(report.thread, std::this_thread::get_id());
    // RV, RF, RP and WP answered: four documents, each as the camera stood after that answer
    ASSERT_EQ(newData.size(), 4u);
    for (const auto& [json, thread] : newData)
        EXPECT_EQ(thread, std::this_thread::get_id());
    EXPECT_NE(newData[0].first.find("\"bleVersion\":12"), std::string::npos);
    EXPECT_NE(newData[2].first.find("\"code\":85"), std::string::npos);  // 'U' read
    EXPECT_NE(newData[3].first.find("\"code\":90"), std::string::npos);  // 'Z' after the command
    // each change of the list comes after the data that caused it
    EXPECT_EQ(order.front(), "data");
    EXPECT_EQ(order.back(), "changed");
}

TEST_F(CameraFlow, ConfigureReturnsAtOnceAndTheAutoScanPeriodMeanwhileScansNothingButRearms) {
    scripted.power = 'U';
    scripted.obeyPower = false;  // so that the flow sleeps in the power step
    Ready();
    Gate gate;
    onSleep = [&gate](std::chrono::milliseconds) { gate.Wait(); };
    controller->ConfigureRemoteCamera(camera);
    ASSERT_TRUE(gate.AwaitWaiter());

    // the worker holds the scan lock inside its flow; a period comes due
    const size_t advertiserCalls = advertiser->calls.size();
    EXPECT_EQ(controller->AutoScanTask(), 0);
    EXPECT_EQ(scanner->ScanCalls(), 0);
    EXPECT_EQ(advertiser->calls.size(), advertiserCalls);
    EXPECT_TRUE(controller->AutoScanArmed());
    EXPECT_EQ(controller->AutoScanDueUsec(), nowUsec + 10 * kSecondUsec);

    gate.Open();
    ASSERT_TRUE(RunLoopUntil([&] { return !reports.empty(); }));
    EXPECT_FALSE(reports[0].success);
    // the lock is free again: the next period scans
    EXPECT_EQ(controller->AutoScanTask(), 0);
    EXPECT_EQ(scanner->ScanCalls(), 1);
}

TEST_F(CameraFlow, TwoRequestsAreServedOneAfterTheOtherInLockOrder) {
    scripted.power = 'U';
    scripted.obeyPower = false;
    Ready();
    auto second = Camera("Kelp-2", kOtherCameraMac);
    Gate gate;
    onSleep = [&gate](std::chrono::milliseconds) { gate.Wait(); };
    controller->ConfigureRemoteCamera(camera);
    ASSERT_TRUE(gate.AwaitWaiter());
    controller->ConfigureRemoteCamera(second);
    // the second waits for the lock: it has not touched the radio
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(std::count(radio->calls.begin(), radio->calls.end(), std::string("connect ") + kOtherCameraMac),
              0);

    gate.Open();
    ASSERT_TRUE(RunLoopUntil([&] { return reports.size() == 2; }));
    // each reports after giving the lock back, so the two reports may come in either order
    const bool inOrder = reports[0].json.find(kCameraMac) != std::string::npos &&
                         reports[1].json.find(kOtherCameraMac) != std::string::npos;
    const bool swapped = reports[0].json.find(kOtherCameraMac) != std::string::npos &&
                         reports[1].json.find(kCameraMac) != std::string::npos;
    EXPECT_TRUE(inOrder || swapped) << reports[0].json << "\n" << reports[1].json;
    // the first was disconnected before the second was connected
    const auto firstGone =
        std::find(radio->calls.begin(), radio->calls.end(), std::string("disconnect ") + kCameraMac);
    const auto secondCame =
        std::find(radio->calls.begin(), radio->calls.end(), std::string("connect ") + kOtherCameraMac);
    ASSERT_NE(firstGone, radio->calls.end());
    ASSERT_NE(secondCame, radio->calls.end());
    EXPECT_LT(firstGone, secondCame);
}

TEST_F(CameraFlow, AnExceptionInsideTheFlowIsLoggedTheCameraDisconnectedAndAFailureReported) {
    Ready();
    radio->onWrite = [](const TestSupport::GattWrite&) { throw std::runtime_error("link lost"); };
    Logging::Capture capture;
    const Report report = Configure(camera);
    EXPECT_FALSE(report.success);
    EXPECT_TRUE(capture.Contains("ConfigureRemoteCamera: link lost", LOG_ERR));
    EXPECT_EQ(radio->calls.back(), std::string("disconnect ") + kCameraMac);
    EXPECT_TRUE(capture.Contains("Failed to configure Kelp-1 over BLE:", LOG_ERR));
    // and the lock was given back
    std::unique_lock<std::mutex> lock(ControllerProbe::ScanLock(*controller), std::try_to_lock);
    EXPECT_TRUE(lock.owns_lock());
}

TEST_F(CameraFlow, NothingHappensBeforeTheControllerIsInitialised) {
    Make();
    controller->ConfigureRemoteCamera(camera);
    controller->StartBleInfoRefresh();
    EXPECT_EQ(ControllerProbe::Workers(*controller)->Running(), 0);
    EXPECT_THAT(radio->calls, IsEmpty());
}

TEST_F(CameraFlow, AWorkerOutlivesTheControllerAndItsFlowEndsPromptlyWithoutAReport) {
    scripted.power = 'Z';
    scripted.wifi = 'B';  // the access point wait would take 20 polls
    Ready();
    Gate gate;
    onSleep = [&gate](std::chrono::milliseconds) { gate.Wait(); };
    controller->ConfigureRemoteCamera(camera);
    ASSERT_TRUE(gate.AwaitWaiter());
    std::shared_ptr<CameraWorkers> workers = ControllerProbe::Workers(*controller);
    const std::weak_ptr<KelpBleManager> manager = ControllerProbe::CameraManager(*controller);

    std::thread opener([&gate] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        gate.Open();
    });
    const auto start = std::chrono::steady_clock::now();
    controller.reset();
    const auto took = std::chrono::steady_clock::now() - start;
    opener.join();

    EXPECT_LT(took, BluetoothController::kWorkerStopGrace);
    EXPECT_EQ(workers->Running(), 0);
    // the poll in progress finished; the other 19 were skipped
    EXPECT_EQ(std::count(journal->begin(), journal->end(), "sleep 1000 ms"), 1);
    EXPECT_EQ(radio->calls.back(), std::string("disconnect ") + kCameraMac);
    EXPECT_THAT(reports, IsEmpty());
    sd_event_run(loop, 0);
    EXPECT_THAT(reports, IsEmpty());
    // what the worker kept alive goes with the last holder: nothing holds itself (the thread lets its
    // own reference go just after it stopped counting itself)
    EXPECT_FALSE(manager.expired());
    workers.reset();
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    while (!manager.expired() && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_TRUE(manager.expired());
}

class BleInfoRefresh : public CameraFlow {};

TEST_F(BleInfoRefresh, EveryCameraIsReadAndOneThatCannotBeReadIsLogged) {
    auto generic = std::make_shared<ScannedDevice::Base>();
    generic->SetMac("AA:00:00:00:00:01");
    auto otherUnit = Camera("Unit-7", "AA:00:00:00:00:02", 1);
    auto unreadable = Camera("Kelp-2", kOtherCameraMac);
    scanner->devices = {generic, camera, otherUnit, unreadable};
    scripted.power = 'Z';
    // Kelp-1's three reads go through; Kelp-2's first fails
    radio->writeResults = {true, true, true, false};
    Ready();
    Logging::Capture capture;
    EXPECT_FALSE(ControllerProbe::Workers(*controller)->RefreshBleInfo(scanner->Devices()));

    EXPECT_THAT(radio->calls, ::testing::Contains(std::string("disconnect ") + kCameraMac));
    EXPECT_THAT(radio->calls, ::testing::Contains(std::string("disconnect ") + kOtherCameraMac));
    for (const auto& call : radio->calls) {
        EXPECT_EQ(call.find("AA:00:00:00:00:0"), std::string::npos) << call;
    }
    EXPECT_EQ(capture.Count(std::string("Failed to get BLE info from device ") + kOtherCameraMac, LOG_ERR),
              1u);
    EXPECT_EQ(capture.CountContaining("Failed to get BLE info"), 1u);
    // the answers had a second to arrive, for the camera that could be read
    EXPECT_EQ(std::count(journal->begin(), journal->end(), "sleep 1000 ms"), 1);
    EXPECT_EQ(camera->BleVersion(), 12);
    EXPECT_EQ(camera->PowerState(), 'Z');
}

TEST_F(BleInfoRefresh, RunsOnItsOwnThreadUnderTheScanLockAndItsDataReachesTheLoop) {
    scanner->devices = {camera};
    scripted.power = 'Y';
    Ready();
    std::vector<std::thread::id> threads;
    controller->NewCameraData().connect(
        [&](const std::string&) { threads.push_back(std::this_thread::get_id()); });
    Gate gate;
    onSleep = [&gate](std::chrono::milliseconds) { gate.Wait(); };
    controller->StartBleInfoRefresh();
    ASSERT_TRUE(gate.AwaitWaiter());
    {
        std::unique_lock<std::mutex> lock(ControllerProbe::ScanLock(*controller), std::try_to_lock);
        EXPECT_FALSE(lock.owns_lock());
    }
    gate.Open();
    ASSERT_TRUE(RunLoopUntil(
        [&] { return threads.size() == 3 && ControllerProbe::Workers(*controller)->Running() == 0; }));
    for (const auto& thread : threads)
        EXPECT_EQ(thread, std::this_thread::get_id());
    EXPECT_EQ(radio->calls.back(), std::string("disconnect ") + kCameraMac);
}
