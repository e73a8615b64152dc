#pragma once
// The daemon on the bus: "com.quorbel.common.Bluetooth1" on the user bus, where the unit's programs
// live, with an object manager and the Radio, Advert and Scanner interfaces on one path. Everything the
// interfaces do is the controller's.

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <functional>
#include <memory>
#include <vector>

#include "dbus_helper/DbusObject.h"
#include "dbus_helper/DbusServer.h"

class BluetoothController;

class BluetoothDbusServer : public DbusHelper::DbusServer {
  public:
    // Touches no bus: Run() does.
    BluetoothDbusServer(std::shared_ptr<BluetoothController> controller, sd_event* loop);
    ~BluetoothDbusServer() override;

    // Takes the name, installs the object manager and adds Radio, Advert and Scanner, in that order. 0;
    // -1 when the bus cannot be had, or the name is another's: then the name is queued for, and all of
    // this is done when the bus hands it over (OnNameAcquired); the object manager's negative error when
    // it cannot be installed (no interface is added then).
    int Run();
    // Run() once more after the bus could not be had or went away: the same, but a failure is not logged
    // again. 0 once serving.
    int RunAgain();

    // Called on the loop thread, from the bus's own dispatch, when a served bus goes away (its
    // dbus-daemon ended or dropped the connection). Stop() and RunAgain() must wait for a later
    // iteration.
    void OnBusLost(std::function<void()> handler) { busLost = std::move(handler); }
    // Called on the loop thread when the bus has handed over the name this server queued for and the
    // objects are published.
    void OnNameAcquired(std::function<void()> handler) { nameAcquired = std::move(handler); }

  protected:
    // sd_bus_add_object_manager on the bus for `path`, kept for the bus's lifetime; tests replace it.
    virtual int AddObjectManager(sd_bus* bus, const char* path);

  private:
    // Everything Run() does once the bus and the name are had; the objects are made once and attached
    // again to each new connection.
    int Publish();
    static int OnDisconnected(sd_bus_message* m, void* userdata, sd_bus_error* error);

    std::shared_ptr<BluetoothController> controller;
    std::vector<std::shared_ptr<DbusHelper::DbusObject>> objects;
    std::function<void()> busLost;
    std::function<void()> nameAcquired;
};
