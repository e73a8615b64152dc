#include "dbus/BluetoothDbusServer.h"

#include <utility>

#include "controller/BluetoothController.h"
#include "dbus/AdvertObject.h"
#include "dbus/Names.h"
#include "dbus/RadioObject.h"
#include "dbus/ScannerObject.h"
#include "logging/Log.h"

BluetoothDbusServer::BluetoothDbusServer(std::shared_ptr<BluetoothController> owner, sd_event* loop)
    : DbusServer(BluetoothDbus::kBusName, BluetoothDbus::kObjectPath, BluetoothDbus::kBusName, false, false,
                 loop),
      controller(std::move(owner)) {}

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
    return Publish();
}

int BluetoothDbusServer::RunAgain() {
    // quiet: Run() has said why the first try failed, and a try per back-off step would flood the log
    if (Start() < 0)
        return -1;
    Logging::Log(LOG_INFO, "%s: the bus can be had now, serving", "Run");
    return Publish();
}

int BluetoothDbusServer::Publish() {
    int r = AddObjectManager(Bus(), BluetoothDbus::kObjectPath);
    if (r < 0) {
        Logging::Log(LOG_ERR, "%s, Failed to add obj manager, (%d)\n", "Run", r);
        return r;
    }
    // GetManagedObjects on the path itself and on "/" both list the path with its interfaces
    r = ReportRootInManagedObjects();
    if (r < 0)
        Logging::Log(LOG_ERR, "%s: the object manager will not list %s, (%d)", "Run",
                     BluetoothDbus::kObjectPath, r);

    Logging::Log(LOG_INFO, "%s: Adding radio object...\n", "Run");
    auto radio = std::make_shared<BluetoothDbusObject::Radio>(controller);
    (void)AddObject(radio);
    objects.push_back(radio);

    Logging::Log(LOG_INFO, "%s: Adding advert object...\n", "Run");
    auto advert = std::make_shared<BluetoothDbusObject::Advert>(controller);
    (void)AddObject(advert);
    objects.push_back(advert);

    Logging::Log(LOG_INFO, "%s: Adding scanner object...\n", "Run");
    auto scanner = std::make_shared<BluetoothDbusObject::Scanner>(controller);
    (void)AddObject(scanner);
    objects.push_back(scanner);
    return 0;
}
