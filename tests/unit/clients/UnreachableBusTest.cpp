// The clients when the user bus cannot be used: no bus at the address, or a bus that hangs up at once.
#include <gtest/gtest.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "clients/NetworkDaemonDbusHandler.h"
#include "clients/NetworkOperations.h"
#include "clients/PylonDaemonDbusHandler.h"
#include "clients/PylonOperations.h"
#include "clients/SettingsDaemonDbusHandler.h"
#include "clients/SettingsOperations.h"
#include "logging/Log.h"
#include "test_support/BusKit.h"

namespace {

// Points DBUS_SESSION_BUS_ADDRESS somewhere else for the object's lifetime.
class ScopedBusAddress {
  public:
    explicit ScopedBusAddress(const std::string& address) {
        const char* old = getenv("DBUS_SESSION_BUS_ADDRESS");
        if (old != nullptr)
            saved = old;
        setenv("DBUS_SESSION_BUS_ADDRESS", address.c_str(), 1);
    }
    ~ScopedBusAddress() {
        if (saved)
            setenv("DBUS_SESSION_BUS_ADDRESS", saved->c_str(), 1);
        else
            unsetenv("DBUS_SESSION_BUS_ADDRESS");
    }

  private:
    std::optional<std::string> saved;
};

const std::string kDeadBus = "unix:path=/nonexistent/qb-unit-test/bus";

// A socket that accepts connections and closes them at once: connecting works, every call then fails.
class HangUpBus {
  public:
    HangUpBus() {
        char made[] = "/tmp/qb-hangup.XXXXXX";
        EXPECT_NE(mkdtemp(made), nullptr);
        dir = made;
        path = dir + "/bus";
        fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
        EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
        EXPECT_EQ(listen(fd, 16), 0);
        thread = std::thread([this] {
            while (!stop) {
                pollfd p{fd, POLLIN, 0};
                if (poll(&p, 1, 20) > 0) {
                    const int c = accept4(fd, nullptr, nullptr, SOCK_CLOEXEC);
                    if (c < 0)
                        continue;
                    pollfd in{c, POLLIN, 0};
                    if (poll(&in, 1, 2000) > 0) {
                        char buf[256];
                        (void)!read(c, buf, sizeof buf);
                    }
                    close(c);
                }
            }
        });
    }
    ~HangUpBus() {
        stop = true;
        thread.join();
        close(fd);
        unlink(path.c_str());
        rmdir(dir.c_str());
    }
    std::string Address() const { return "unix:path=" + path; }

  private:
    std::string dir;
    std::string path;
    int fd = -1;
    std::atomic<bool> stop{false};
    std::thread thread;
};

class Unreachable : public ::testing::Test {
  protected:
    void SetUp() override {
        owned = BusKit::NewLoop();
        ASSERT_TRUE(owned);
        loop = owned.get();
    }
    DbusHelper::Event owned;
    sd_event* loop = nullptr;
};

}  // namespace

using ListenWithoutBus = Unreachable;

TEST_F(ListenWithoutBus, SettingsLogsTheConnectFailureAndReturnsTheError) {
    ScopedBusAddress dead(kDeadBus);
    Settingsd::SettingsDaemonDbusHandler handler(loop);
    Logging::Capture capture;
    EXPECT_EQ(handler.Listen(), -ENOENT);
    EXPECT_FALSE(handler.IsConnected());
    ASSERT_EQ(capture.Lines().size(), 1u);
    EXPECT_EQ(capture.Lines()[0].text,
              "int32_t Settingsd::SettingsDaemonDbusHandler::Listen(): Failed to connect to dbus");
    EXPECT_EQ(capture.Lines()[0].priority, LOG_ERR);
}

TEST_F(ListenWithoutBus, NetworkLogsTheConnectFailureAndReturnsTheError) {
    ScopedBusAddress dead(kDeadBus);
    Networkd::NetworkDaemonDbusHandler handler(loop);
    Logging::Capture capture;
    EXPECT_EQ(handler.Listen(), -ENOENT);
    EXPECT_FALSE(handler.IsConnected());
    EXPECT_EQ(capture.Texts(),
              std::vector<std::string>{
                  "Failed to connect to the dbus, int Networkd::NetworkDaemonDbusHandler::Listen()"});
}

TEST_F(ListenWithoutBus, PowerLogsTheConnectFailureAndReturnsTheError) {
    ScopedBusAddress dead(kDeadBus);
    Pylond::PylonDaemonDbusHandler handler(loop);
    Logging::Capture capture;
    EXPECT_EQ(handler.Listen(), -ENOENT);
    EXPECT_FALSE(handler.IsConnected());
    EXPECT_EQ(capture.Texts(),
              std::vector<std::string>{
                  "Failed to connect to the dbus, int Pylond::PylonDaemonDbusHandler::Listen()"});
}

using ListenOnAHangingUpBus = Unreachable;

TEST_F(ListenOnAHangingUpBus, SettingsLogsTheRegistrationFailureAndDisconnects) {
    HangUpBus bus;
    ScopedBusAddress address(bus.Address());
    Settingsd::SettingsDaemonDbusHandler handler(loop);
    Logging::Capture capture;
    EXPECT_LT(handler.Listen(), 0);
    EXPECT_FALSE(handler.IsConnected());
    EXPECT_EQ(capture.Texts(),
              (std::vector<std::string>{"int32_t Settingsd::SettingsDaemonDbusHandler::Listen(): Failed to "
                                        "register PropertiesChanged signal",
                                        "LibDbusHelper::Storage: Failed to init signal listeners"}));
}

TEST_F(ListenOnAHangingUpBus, NetworkLogsTheRegistrationFailureAndDisconnects) {
    HangUpBus bus;
    ScopedBusAddress address(bus.Address());
    Networkd::NetworkDaemonDbusHandler handler(loop);
    Logging::Capture capture;
    EXPECT_LT(handler.Listen(), 0);
    EXPECT_FALSE(handler.IsConnected());
    EXPECT_EQ(
        capture.Texts(),
        (std::vector<std::string>{
            "Failed to register PropertiesChanged signal, int Networkd::NetworkDaemonDbusHandler::Listen()",
            "Storage: Failed to init signal listeners"}));
}

TEST_F(ListenOnAHangingUpBus, PowerLogsEveryFailedRegistrationByCallbackName) {
    HangUpBus bus;
    ScopedBusAddress address(bus.Address());
    Pylond::PylonDaemonDbusHandler handler(loop);
    Logging::Capture capture;
    EXPECT_LT(handler.Listen(), 0);
    EXPECT_FALSE(handler.IsConnected());
    std::vector<std::string> expected;
    for (const char* name :
         {"VideoStatusChangedHandler", "KeyPressEventHandler", "ReelPropertiesChanged",
          "ReelFirmwarePropertiesChanged", "ReelDistancePropertiesChanged", "PowerPropertiesChanged",
          "CoolingPropertiesChanged", "InterfacesAddedHandler", "InterfacesRemovedHandler"})
        expected.push_back(std::string("Failed to register ") + name +
                           " signal, int Pylond::PylonDaemonDbusHandler::Listen()");
    expected.push_back("Storage: Failed to init signal listeners");
    EXPECT_EQ(capture.Texts(), expected);
}

using ReadWithoutBus = Unreachable;

TEST_F(ReadWithoutBus, EveryBluetoothReaderFallsBackToItsSafeDefault) {
    ScopedBusAddress dead(kDeadBus);
    Logging::Capture capture;
    using H = Settingsd::SettingsDaemonDbusHandler;
    EXPECT_EQ(H::AdvertSchema(), 3u);
    EXPECT_EQ(H::AutoScanRateSecs(), 10u);
    EXPECT_TRUE(H::AdvertisingEnabled());
    EXPECT_TRUE(H::AutoScanEnabled());
    EXPECT_FALSE(H::Discoverable());
    EXPECT_TRUE(H::Pairable());
    EXPECT_TRUE(H::Powered());
    EXPECT_FALSE(H::SystemCallDebug());
    EXPECT_EQ(capture.Lines().size(), 16u);
    EXPECT_TRUE(capture.Contains(
        "int32_t Settingsd::SettingsDaemonDbusHandler::GetSetting(const std::string&, const std::string&, "
        "T&): "
        "ERROR sdbus_utils::GetProperty advertSchema failed cannot connect to the user bus: No such file or "
        "directory",
        LOG_ERR));
    EXPECT_TRUE(capture.Contains(
        "GetBluetoothSetting: Cannot get setting 'advertSchema', setting to safe default: 3", LOG_ERR));
}

TEST_F(ReadWithoutBus, MethodCallsLogThatTheConnectionCouldNotBeOpened) {
    ScopedBusAddress dead(kDeadBus);
    Logging::Capture capture;
    EXPECT_EQ(Settingsd::SettingsDaemonDbusHandler::ResetSection("bluetooth"), -ENOENT);
    EXPECT_EQ(Networkd::NetworkDaemonDbusHandler::Scan(), -ENOENT);
    EXPECT_EQ(Pylond::PylonDaemonDbusHandler::SetLocal(), -ENOENT);
    const std::string reset = SiblingCall::Find(Settingsd::kOperations, "ResetSection").where;
    const std::string scan = SiblingCall::Find(Networkd::kOperations, "Scan").where;
    const std::string setLocal = SiblingCall::Find(Pylond::kOperations, "SetLocal").where;
    EXPECT_EQ(capture.Texts(), (std::vector<std::string>{reset, reset + ": sd_bus_open_user failed",
                                                         scan + ": sd_bus_open_user failed",
                                                         setLocal + ": sd_bus_open_user failed"}));
}
