#include "dbus/BluetoothDbusServer.h"

#include <cerrno>
#include <cstddef>
#include <utility>

#include "controller/BluetoothController.h"
#include "dbus/AdvertObject.h"
#include "dbus/Names.h"
#include "dbus/RadioObject.h"
#include "dbus/ScannerObject.h"
#include "logging/Log.h"
#include "loop/CBoundary.h"

BluetoothDbusServer::BluetoothDbusServer(std::shared_ptr<BluetoothController> owner, sd_event* loop)
    : DbusServer(BluetoothDbus::kBusName, BluetoothDbus::kObjectPath, BluetoothDbus::kBusName, false, false,
                 loop),
      controller(std::move(owner)) {
    // another owner of the name is waited for in the bus's queue: served the moment it leaves
    QueueForName([this] {
        Logging::Log(LOG_INFO, "%s: the bus can be had now, serving", "Run");
        if (Publish() >= 0 && nameAcquired)
            nameAcquired();
    });
}

BluetoothDbusServer::~BluetoothDbusServer() {
    for (auto& object : objects)
        object.reset();
    objects.clear();
    controller.reset();
}

int BluetoothDbusServer::AddObjectManager(sd_bus* bus, const char* path) {
    return sd_bus_add_object_manager(bus, nullptr, path);
}

int BluetoothDbusServer::Run() {
    const int r = Start();
    if (r < 0) {
        Logging::Log(LOG_ERR, "%s: Failed to start dbus server, (%d)", "Run", r);
        return -1;
    }
    if (!OwnsName()) {
        // queued behind another owner: said as a name the bus refused, and published once handed over
        Logging::Log(LOG_ERR, "%s: Failed to start dbus server, (%d)", "Run", -EEXIST);
        return -1;
    }
    return Publish();
}

int BluetoothDbusServer::RunAgain() {
    // quiet: Run() has said why the first try failed, and a try per back-off step would flood the log
    if (Start() < 0)
        return -1;
    if (!OwnsName())
        return -1;
    Logging::Log(LOG_INFO, "%s: the bus can be had now, serving", "Run");
    return Publish();
}

int BluetoothDbusServer::Publish() {
    // sd-bus turns the end of the connection into this local signal; floating: it goes with the bus
    int r = sd_bus_match_signal(Bus(), nullptr, nullptr, "/org/freedesktop/DBus/Local",
                                "org.freedesktop.DBus.Local", "Disconnected",
                                &BluetoothDbusServer::OnDisconnected, this);
    if (r < 0)
        Logging::Log(LOG_ERR, "%s: a lost bus will go unnoticed, (%d)", "Run", r);
    r = AddObjectManager(Bus(), BluetoothDbus::kObjectPath);
    if (r < 0) {
        Logging::Log(LOG_ERR, "%s, Failed to add obj manager, (%d)\n", "Run", r);
        return r;
    }
    // GetManagedObjects on the path itself and on "/" both list the path with its interfaces
    r = ReportRootInManagedObjects();
    if (r < 0)
        Logging::Log(LOG_ERR, "%s: the object manager will not list %s, (%d)", "Run",
                     BluetoothDbus::kObjectPath, r);

    if (objects.empty()) {
        objects.push_back(std::make_shared<BluetoothDbusObject::Radio>(controller));
        objects.push_back(std::make_shared<BluetoothDbusObject::Advert>(controller));
        objects.push_back(std::make_shared<BluetoothDbusObject::Scanner>(controller));
    }
    const char* const names[] = {"radio", "advert", "scanner"};
    for (std::size_t i = 0; i < objects.size(); ++i) {
        Logging::Log(LOG_INFO, "%s: Adding %s object...\n", "Run", names[i]);
        (void)AddObject(objects[i]);
    }
    return 0;
}

int BluetoothDbusServer::OnDisconnected(sd_bus_message*, void* userdata, sd_bus_error*) {
    return CBoundary::Call("OnDisconnected", [userdata] {
        auto* self = static_cast<BluetoothDbusServer*>(userdata);
        if (self->busLost)
            self->busLost();
    });
}
