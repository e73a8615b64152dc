// BluetoothDbusServer::Run() on the harness's user bus, over the controller on fakes: the results and
// log lines of each way it can end, and what a client then finds on the bus.
#include <gtest/gtest.h>
#include <systemd/sd-bus.h>

#include <atomic>
#include <cerrno>
#include <memory>
#include <string>
#include <thread>

#include "dbus/BluetoothDbusServer.h"
#include "dbus/Names.h"
#include "dbus_helper/Handles.h"
#include "logging/Log.h"
#include "test_support/ControllerFixture.h"
#include "test_support/TestEnv.h"

using namespace ControllerTest;

namespace {

class ServerWithFailingManager : public BluetoothDbusServer {
  public:
    using BluetoothDbusServer::BluetoothDbusServer;
    int managerCalls = 0;

  protected:
    int AddObjectManager(sd_bus*, const char*) override {
        ++managerCalls;
        return -ENOMEM;
    }
};

}  // namespace

class ServerRun : public ControllerFixture {
  protected:
    void SetUp() override {
        ASSERT_TRUE(TestSupport::InHarness()) << "run through tests/harness/testenv.py";
        ControllerFixture::SetUp();
        MakeInitialised();
        shared = std::shared_ptr<BluetoothController>(controller.get(), [](BluetoothController*) {});
    }

    // The introspection of the daemon's path as a client on another connection sees it, while this
    // thread runs the server's loop. Empty when the call fails, with the error's name in `failure`.
    std::string IntrospectFromAClient(std::string* failure = nullptr) {
        std::string xml;
        std::string errorName;
        std::atomic<bool> done{false};
        std::thread client([&] {
            sd_bus* opened = nullptr;
            if (sd_bus_open_user(&opened) >= 0) {
                DbusHelper::Bus bus(opened);
                DbusHelper::Error error;
                sd_bus_message* reply = nullptr;
                if (sd_bus_call_method(opened, BluetoothDbus::kBusName, BluetoothDbus::kObjectPath,
                                       "org.freedesktop.DBus.Introspectable", "Introspect", error.Get(),
                                       &reply, "") >= 0) {
                    DbusHelper::Message owned(reply);
                    const char* text = nullptr;
                    if (sd_bus_message_read(reply, "s", &text) >= 0 && text != nullptr)
                        xml = text;
                } else {
                    errorName = error.Name();
                }
            }
            done = true;
        });
        RunLoopUntil([&] { return done.load(); }, std::chrono::milliseconds(10000));
        client.join();
        if (failure != nullptr)
            *failure = errorName;
        return xml;
    }

    std::shared_ptr<BluetoothController> shared;
};

TEST_F(ServerRun, ServesTheThreeInterfacesAfterLoggingEachInOrder) {
    Logging::Capture capture;
    BluetoothDbusServer server(shared, loop);
    ASSERT_EQ(server.Run(), 0);
    std::vector<std::string> adding;
    for (const auto& line : capture.Lines()) {
        if (line.text.find("Adding") != std::string::npos) {
            EXPECT_EQ(line.priority, LOG_INFO);
            adding.push_back(line.text);
        }
    }
    EXPECT_EQ(adding,
              (std::vector<std::string>{"Run: Adding radio object...\n", "Run: Adding advert object...\n",
                                        "Run: Adding scanner object...\n"}));
    const std::string xml = IntrospectFromAClient();
    for (const char* interface :
         {BluetoothDbus::kRadioInterface, BluetoothDbus::kAdvertInterface, BluetoothDbus::kScannerInterface})
        EXPECT_NE(xml.find(interface), std::string::npos) << interface;
}

TEST_F(ServerRun, AnObjectManagerThatCannotBeAddedLeavesNoInterfaceReachable) {
    Logging::Capture capture;
    ServerWithFailingManager server(shared, loop);
    EXPECT_EQ(server.Run(), -ENOMEM);
    EXPECT_EQ(server.managerCalls, 1);
    EXPECT_EQ(capture.Count("Run, Failed to add obj manager, (-12)\n", LOG_ERR), 1u);
    EXPECT_EQ(capture.CountContaining("Adding"), 0u);
    // the name was taken, but nothing is served on the path
    std::string failure;
    const std::string xml = IntrospectFromAClient(&failure);
    EXPECT_EQ(xml.find("com.quorbel.common.Bluetooth1."), std::string::npos) << xml;
    EXPECT_TRUE(xml.empty() ? failure == "org.freedesktop.DBus.Error.UnknownObject" : true) << failure;
}

TEST_F(ServerRun, ANameOwnedElsewhereEndsRunBeforeTheObjectManagerAndIsQueuedFor) {
    sd_bus* opened = nullptr;
    ASSERT_GE(sd_bus_open_user(&opened), 0);
    DbusHelper::Bus other(opened);
    ASSERT_GE(sd_bus_request_name(opened, BluetoothDbus::kBusName, 0), 0);

    Logging::Capture capture;
    ServerWithFailingManager server(shared, loop);
    int acquired = 0;
    server.OnNameAcquired([&] { ++acquired; });
    EXPECT_EQ(server.Run(), -1);
    EXPECT_EQ(server.managerCalls, 0);
    EXPECT_EQ(capture.Count("Run: Failed to start dbus server, (-17)", LOG_ERR), 1u);
    EXPECT_EQ(capture.CountContaining("Adding"), 0u);
    // waiting in the bus's queue, not owning the name
    EXPECT_TRUE(server.IsStarted());
    EXPECT_FALSE(server.OwnsName());

    // the owner leaves: the bus hands the name over, and the rest of Run follows
    ASSERT_GE(sd_bus_release_name(opened, BluetoothDbus::kBusName), 0);
    ASSERT_TRUE(BusTest::PumpUntil(
        loop, [&] { return server.OwnsName(); }, std::chrono::milliseconds(5000)));
    EXPECT_EQ(capture.Count("Run: the bus can be had now, serving", LOG_INFO), 1u);
    EXPECT_EQ(server.managerCalls, 1);
    // this manager fails, so nothing is added and nobody is told the name is served
    EXPECT_EQ(capture.CountContaining("Adding"), 0u);
    EXPECT_EQ(acquired, 0);
}
