// The three D-Bus objects as a client sees them: the daemon's server on one end of a socket pair, a
// client on the other, both on the test's loop, and the controller on fakes behind the server.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-id128.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "dbus/BluetoothDbusServer.h"
#include "dbus_helper/Handles.h"
#include "logging/Log.h"
#include "remote_camera/KelpBleManager.h"
#include "scanned_device/RemoteCamera.h"
#include "test_support/ControllerFixture.h"
#include "test_support/ControllerProbe.h"
#include "test_support/LockHolder.h"

using namespace ControllerTest;

namespace {

constexpr const char* kPath = "/com/quorbel/common/Bluetooth1";
constexpr const char* kRadio = "com.quorbel.common.Bluetooth1.Radio";
constexpr const char* kAdvert = "com.quorbel.common.Bluetooth1.Advert";
constexpr const char* kScanner = "com.quorbel.common.Bluetooth1.Scanner";
constexpr const char* kCameraMac = "00:11:22:33:44:55";
constexpr const char* kOtherUnitMac = "66:77:88:99:AA:BB";
constexpr const char* kOddTypeMac = "CC:DD:EE:FF:00:11";

// The server on a direct connection: no bus daemon, so no name to own.
class DirectServer : public BluetoothDbusServer {
  public:
    DirectServer(std::shared_ptr<BluetoothController> controller, sd_event* loop, int serverEnd)
        : BluetoothDbusServer(std::move(controller), loop), fd(serverEnd) {}

  protected:
    int OpenBus(sd_bus** connection) override {
        sd_id128_t id;
        sd_bus* bus = nullptr;
        int r = sd_id128_randomize(&id);
        if (r >= 0)
            r = sd_bus_new(&bus);
        if (r >= 0)
            r = sd_bus_set_fd(bus, fd, fd);
        if (r >= 0)
            r = sd_bus_set_server(bus, 1, id);
        // as on the user bus: setting a property takes no privilege
        if (r >= 0)
            r = sd_bus_set_trusted(bus, 1);
        if (r >= 0)
            r = sd_bus_start(bus);
        if (r < 0) {
            sd_bus_unref(bus);
            return r;
        }
        *connection = bus;
        return 0;
    }

  private:
    int fd;
};

// A reply as the client received it.
struct Reply {
    DbusHelper::Message message;
    std::string error;
    std::string errorMessage;
};

// A signal as the client received it: its member and its body as text.
struct Heard {
    std::string member;
    std::string text;
    bool flag = false;
};

}  // namespace

class BusObjects : public ControllerFixture {
  protected:
    void SetUp() override {
        ControllerFixture::SetUp();
        scanner->devices = {Device(kCameraMac, "Kelp-1", 7), Device(kOtherUnitMac, "Unit-2", 1),
                            Device(kOddTypeMac, "Odd-3", 42)};
    }

    void TearDown() override {
        if (client != nullptr)
            sd_bus_flush_close_unref(client);
        server.reset();
        ControllerFixture::TearDown();
    }

    static std::shared_ptr<ScannedDevice::Base> Device(const char* mac, const char* name, int type) {
        auto device = std::make_shared<ScannedDevice::RemoteCamera>();
        device->SetMac(mac);
        device->SetName(name);
        device->SetDeviceType(type);
        return device;
    }

    // The controller up on its fakes, served, and a client connected.
    void Serve() {
        MakeInitialised();
        int fds[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
        server = std::make_unique<DirectServer>(
            std::shared_ptr<BluetoothController>(controller.get(), [](BluetoothController*) {}), loop,
            fds[0]);
        ASSERT_EQ(server->Run(), 0);
        ASSERT_GE(sd_bus_new(&client), 0);
        ASSERT_GE(sd_bus_set_fd(client, fds[1], fds[1]), 0);
        ASSERT_GE(sd_bus_start(client), 0);
        ASSERT_GE(sd_bus_attach_event(client, loop, SD_EVENT_PRIORITY_NORMAL), 0);
        ASSERT_GE(sd_bus_add_filter(client, nullptr, &BusObjects::OnClientMessage, this), 0);
        ASSERT_TRUE(RunLoopUntil([this] { return sd_bus_is_ready(client) > 0; }));
        Forget();
    }

    // Sends `call` and runs the loop until its reply is in.
    Reply Send(sd_bus_message* call) {
        Reply reply;
        bool done = false;
        auto onReply = [](sd_bus_message* m, void* userdata, sd_bus_error*) -> int {
            auto* out = static_cast<std::pair<Reply*, bool*>*>(userdata);
            out->first->message.reset(sd_bus_message_ref(m));
            if (const sd_bus_error* error = sd_bus_message_get_error(m)) {
                out->first->error = error->name != nullptr ? error->name : "";
                out->first->errorMessage = error->message != nullptr ? error->message : "";
            }
            *out->second = true;
            return 0;
        };
        std::pair<Reply*, bool*> out{&reply, &done};
        EXPECT_GE(sd_bus_call_async(client, nullptr, call, onReply, &out, 0), 0);
        sd_bus_message_unref(call);
        EXPECT_TRUE(RunLoopUntil([&] { return done; }));
        return reply;
    }

    sd_bus_message* Method(const char* interface, const char* member) {
        sd_bus_message* call = nullptr;
        EXPECT_GE(sd_bus_message_new_method_call(client, &call, nullptr, kPath, interface, member), 0);
        return call;
    }

    Reply CallConfigKelpBle(const char* address) {
        sd_bus_message* call = Method(kRadio, "ConfigKelpBle");
        EXPECT_GE(sd_bus_message_append(call, "s", address), 0);
        return Send(call);
    }

    Reply Get(const char* interface, const char* property) {
        sd_bus_message* call = Method("org.freedesktop.DBus.Properties", "Get");
        EXPECT_GE(sd_bus_message_append(call, "ss", interface, property), 0);
        return Send(call);
    }

    bool GetFlag(const char* interface, const char* property) {
        Reply reply = Get(interface, property);
        int value = -1;
        EXPECT_EQ(reply.error, "");
        EXPECT_GE(sd_bus_message_read(reply.message.get(), "v", "b", &value), 0);
        return value == 1;
    }

    std::string GetText(const char* interface, const char* property) {
        Reply reply = Get(interface, property);
        const char* text = nullptr;
        EXPECT_EQ(reply.error, "");
        EXPECT_GE(sd_bus_message_read(reply.message.get(), "v", "s", &text), 0);
        return text != nullptr ? text : "";
    }

    Reply SetFlag(const char* interface, const char* property, bool on) {
        sd_bus_message* call = Method("org.freedesktop.DBus.Properties", "Set");
        EXPECT_GE(sd_bus_message_append(call, "ssv", interface, property, "b", on ? 1 : 0), 0);
        return Send(call);
    }

    std::string Scan() {
        Reply reply = Send(Method(kScanner, "Scan"));
        const char* text = nullptr;
        EXPECT_EQ(reply.error, "");
        EXPECT_GE(sd_bus_message_read(reply.message.get(), "s", &text), 0);
        return text != nullptr ? text : "";
    }

    static int OnClientMessage(sd_bus_message* m, void* userdata, sd_bus_error*) {
        auto* self = static_cast<BusObjects*>(userdata);
        uint8_t type = 0;
        if (sd_bus_message_get_type(m, &type) < 0 || type != SD_BUS_MESSAGE_SIGNAL)
            return 0;
        Heard heard;
        heard.member = sd_bus_message_get_member(m);
        const char* text = nullptr;
        int flag = 0;
        if (heard.member == "ConfiguredKelpBle") {
            if (sd_bus_message_read(m, "(bs)", &flag, &text) >= 0)
                heard.flag = flag != 0;
        } else if (heard.member == "PropertiesChanged") {
            // the interface, then the names of the changed and of the invalidated properties
            const char* interface = nullptr;
            if (sd_bus_message_read(m, "s", &interface) >= 0 && interface != nullptr)
                heard.text = interface;
            const char* name = nullptr;
            if (sd_bus_message_enter_container(m, 'a', "{sv}") > 0) {
                while (sd_bus_message_enter_container(m, 'e', "sv") > 0) {
                    if (sd_bus_message_read(m, "s", &name) > 0)
                        heard.text += std::string(" ") + name;
                    (void)sd_bus_message_skip(m, "v");
                    (void)sd_bus_message_exit_container(m);
                }
                (void)sd_bus_message_exit_container(m);
            }
            if (sd_bus_message_enter_container(m, 'a', "s") > 0) {
                while (sd_bus_message_read(m, "s", &name) > 0)
                    heard.text += std::string(" ") + name;
            }
        } else {
            (void)sd_bus_message_read(m, "s", &text);
        }
        if (text != nullptr)
            heard.text = text;
        self->heard.push_back(heard);
        return 0;
    }

    std::unique_ptr<DirectServer> server;
    sd_bus* client = nullptr;
    std::vector<Heard> heard;
};

TEST_F(BusObjects, ScanPausesAutoScanAndAdvertisingForThePassAndResumesBoth) {
    flags["advertisingEnabled"] = true;
    flags["autoScanEnabled"] = true;
    Serve();
    ASSERT_TRUE(controller->GetAdvertisingEnabled());
    ASSERT_TRUE(controller->AutoScanArmed());
    bool armedDuringThePass = true;
    bool advertisingDuringThePass = true;
    scanner->onScan = [&](TestSupport::FakeScanner&) {
        armedDuringThePass = controller->AutoScanArmed();
        advertisingDuringThePass = controller->GetAdvertisingEnabled();
    };

    const nlohmann::json devices = nlohmann::json::parse(Scan());

    EXPECT_EQ(*journal, (Journal{"advertiser stop", "scanner scan", "advertiser start"}));
    EXPECT_FALSE(armedDuringThePass);
    EXPECT_FALSE(advertisingDuringThePass);
    EXPECT_TRUE(controller->AutoScanArmed());
    EXPECT_TRUE(controller->GetAutoScanEnabled());
    EXPECT_TRUE(controller->GetAdvertisingEnabled());
    ASSERT_EQ(devices.size(), 3u);
    EXPECT_EQ(devices[0].at("mac"), "00:11:22:33:44:55");
    EXPECT_EQ(devices[1].at("mac"), "66:77:88:99:AA:BB");
    EXPECT_EQ(controller->LastScanOutcome(), BluetoothController::ScanOutcome::Succeeded);
}

TEST_F(BusObjects, ScanWithAutoScanAndAdvertisingOffLeavesThemOff) {
    flags["advertisingEnabled"] = false;
    flags["autoScanEnabled"] = false;
    Serve();
    scanner->devices.clear();

    EXPECT_EQ(Scan(), "[]");

    EXPECT_EQ(*journal, (Journal{"scanner scan"}));
    EXPECT_FALSE(controller->GetAdvertisingEnabled());
    EXPECT_FALSE(controller->GetAutoScanEnabled());
    EXPECT_FALSE(controller->AutoScanArmed());
}

TEST_F(BusObjects, ScanWhileACameraHoldsTheRadioAnswersTheKnownDevicesAndStillResumes) {
    flags["advertisingEnabled"] = true;
    flags["autoScanEnabled"] = true;
    Serve();
    Logging::Capture capture;
    std::string text;
    {
        TestSupport::LockHolder worker(ControllerProbe::ScanLock(*controller));
        text = Scan();
    }
    EXPECT_EQ(scanner->ScanCalls(), 0);
    EXPECT_EQ(*journal, (Journal{"advertiser stop", "advertiser start"}));
    EXPECT_EQ(
        capture.Count("Scan: a remote camera is being read, answering with the devices known", LOG_INFO), 1u);
    EXPECT_EQ(controller->LastScanOutcome(), BluetoothController::ScanOutcome::Skipped);
    EXPECT_TRUE(controller->AutoScanArmed());
    EXPECT_EQ(nlohmann::json::parse(text).size(), 3u);
}

TEST_F(BusObjects, ConfigKelpBleForAnAddressNeverScannedIsDeviceNotFound) {
    Serve();
    const Reply reply = CallConfigKelpBle("12:34:56:78:9A:BC");
    EXPECT_EQ(reply.error, "com.quorbel.common.Bluetooth1.Error.DeviceNotFound");
    EXPECT_EQ(reply.errorMessage, "Could not find device: 12:34:56:78:9A:BC");
    EXPECT_TRUE(radio->calls.empty());
}

TEST_F(BusObjects, ConfigKelpBleForAnotherModelNamesIt) {
    Serve();
    const Reply reply = CallConfigKelpBle(kOtherUnitMac);
    EXPECT_EQ(reply.error, "com.quorbel.common.Bluetooth1.Error.DeviceNotAKelpCam");
    EXPECT_EQ(reply.errorMessage, "Device 66:77:88:99:AA:BB is a Arbor");
    EXPECT_TRUE(radio->calls.empty());
}

TEST_F(BusObjects, ConfigKelpBleForATypeWithoutANameEndsAtTheCBoundary) {
    Serve();
    Logging::Capture capture;
    const Reply reply = CallConfigKelpBle(kOddTypeMac);
    EXPECT_EQ(reply.error, "System.Error.ERANGE");
    EXPECT_EQ(capture.Count("com.quorbel.common.Bluetooth1.Radio method call: exception stopped at the C "
                            "boundary: map::at",
                            LOG_ERR),
              1u);
    EXPECT_TRUE(radio->calls.empty());
}

TEST_F(BusObjects, ConfigKelpBleForACameraRepliesAtOnceAndTheOutcomeComesAsASignal) {
    Serve();
    // no worker may start: the request is answered all the same
    ASSERT_TRUE(controller->StopCameraWork(std::chrono::milliseconds(0)));
    const Reply reply = CallConfigKelpBle(kCameraMac);
    EXPECT_EQ(reply.error, "");
    EXPECT_TRUE(sd_bus_message_is_empty(reply.message.get()));

    controller->ConfiguredCamera().emit(true, "{\"mac\":\"00:11:22:33:44:55\"}");
    ASSERT_TRUE(RunLoopUntil([this] { return !heard.empty(); }));
    EXPECT_EQ(heard[0].member, "ConfiguredKelpBle");
    EXPECT_TRUE(heard[0].flag);
    EXPECT_EQ(heard[0].text, "{\"mac\":\"00:11:22:33:44:55\"}");
}

TEST_F(BusObjects, TheRadioSwitchesAreTheRadiosOwn) {
    Serve();
    // as the adapter stands now, whatever the settings switched at start
    radio->powered = true;
    radio->pairable = false;
    radio->discoverable = true;
    EXPECT_TRUE(GetFlag(kRadio, "Powered"));
    EXPECT_FALSE(GetFlag(kRadio, "Pairable"));
    EXPECT_TRUE(GetFlag(kRadio, "Discoverable"));

    radio->calls.clear();
    EXPECT_EQ(SetFlag(kRadio, "Powered", false).error, "");
    EXPECT_EQ(SetFlag(kRadio, "Pairable", true).error, "");
    EXPECT_EQ(SetFlag(kRadio, "Discoverable", false).error, "");
    EXPECT_EQ(radio->calls, (std::vector<std::string>{"powered off", "pairable on", "discoverable off"}));
    EXPECT_FALSE(radio->powered);
    EXPECT_TRUE(radio->pairable);
    EXPECT_FALSE(radio->discoverable);
}

TEST_F(BusObjects, AdvertisingSwitchesOnlyOnAChange) {
    flags["advertisingEnabled"] = true;
    Serve();
    EXPECT_TRUE(GetFlag(kAdvert, "Advertising"));
    EXPECT_EQ(SetFlag(kAdvert, "Advertising", true).error, "");
    EXPECT_TRUE(advertiser->calls.empty());
    EXPECT_EQ(SetFlag(kAdvert, "Advertising", false).error, "");
    EXPECT_EQ(advertiser->calls, (std::vector<std::string>{"stop"}));
}

TEST_F(BusObjects, TheDeviceListsAreTheScannersAsJson) {
    Serve();
    const nlohmann::json all = nlohmann::json::parse(GetText(kScanner, "ScannedDevices"));
    ASSERT_EQ(all.size(), 3u);
    EXPECT_EQ(all[2].at("mac"), "CC:DD:EE:FF:00:11");
    EXPECT_EQ(nlohmann::json::parse(GetText(kScanner, "RemoteCameras")).size(), 3u);
    scanner->devices.clear();
    EXPECT_EQ(GetText(kScanner, "ScannedDevices"), "[]");
    EXPECT_EQ(GetText(kScanner, "RemoteCameras"), "[]");
}

TEST_F(BusObjects, ANewRemoteCameraIsAnnounced) {
    Serve();
    scanner->AnnounceRemoteCamera("{\"mac\":\"00:11:22:33:44:55\"}");
    ASSERT_TRUE(RunLoopUntil([this] { return !heard.empty(); }));
    EXPECT_EQ(heard[0].member, "DiscoveredRemoteCamera");
    EXPECT_EQ(heard[0].text, "{\"mac\":\"00:11:22:33:44:55\"}");
}

TEST_F(BusObjects, NewCameraDataIsAnnouncedAndThenTheChangedList) {
    Serve();
    ControllerProbe::CameraManager(*controller)->NewData().emit("{\"power\":\"Z\"}");
    ASSERT_TRUE(RunLoopUntil([this] { return heard.size() >= 2; }));
    EXPECT_EQ(heard[0].member, "NewKelpBleData");
    EXPECT_EQ(heard[0].text, "{\"power\":\"Z\"}");
    EXPECT_EQ(heard[1].member, "PropertiesChanged");
    EXPECT_EQ(heard[1].text, "com.quorbel.common.Bluetooth1.Scanner RemoteCameras");
}
