// The service's bring-up in a unit whose BlueZ is missing: the controller stays down, the server is
// built but never started, and the name is nobody's.
#include <gtest/gtest.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include "controller/BluetoothController.h"
#include "daemon/ServiceBringUp.h"
#include "dbus/BluetoothDbusServer.h"
#include "dbus/Names.h"
#include "dbus_helper/Handles.h"
#include "logging/Log.h"
#include "test_support/TestEnv.h"

TEST(BringUp, WithoutUsableBackendsTheServerIsBuiltButNeverStarted) {
    ASSERT_TRUE(TestSupport::InHarness()) << "run through tests/harness/testenv.py";
    // as the daemon's: the loop lives as long as the process, with the objects brought up on it
    static sd_event* loop = nullptr;
    ASSERT_GE(sd_event_new(&loop), 0);
    Logging::Capture capture;
    Daemon::BringUpService(loop);

    ASSERT_TRUE(Daemon::ServiceController());
    EXPECT_FALSE(Daemon::ServiceController()->IsInitialised());
    ASSERT_TRUE(Daemon::ServiceServer());
    EXPECT_FALSE(Daemon::ServiceServer()->IsStarted());
    EXPECT_EQ(capture.Count("Bluetooth Controller failed to initialise, disabling dbus interface", LOG_ERR),
              1u);
    EXPECT_EQ(capture.CountContaining("Run"), 0u);

    sd_bus* opened = nullptr;
    ASSERT_GE(sd_bus_open_user(&opened), 0);
    DbusHelper::Bus bus(opened);
    EXPECT_EQ(sd_bus_get_name_creds(opened, BluetoothDbus::kBusName, 0, nullptr), -ENXIO);
    // the objects live on to the end of the process, as in the daemon
}
