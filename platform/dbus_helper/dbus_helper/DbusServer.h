#pragma once
// A D-Bus service: one bus connection that owns one well-known name, dispatches on an sd-event loop and
// serves DbusHelper::DbusObject interfaces.
//
// Constructor arguments:
//   serviceName       the well-known name requested by Start() (a name owned elsewhere fails, unless
//                     QueueForName() was called)
//   objectPath        the service's root object; used for the object manager below
//   description       the connection's description (sd_bus_set_description), shown in sd-bus debug logs
//   systemBus         true: the system bus; false: the user bus, where this unit's services and their
//                     clients live
//   addObjectManager  true: Start() also installs org.freedesktop.DBus.ObjectManager on objectPath;
//                     false: the caller installs its own (sd_bus_add_object_manager on Bus())
//   loop              the sd-event loop that dispatches the bus (null: the calling thread's default loop)
// Nothing touches the bus before Start(). Start(), AddObject() and destruction happen on the loop's thread.

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "dbus_helper/DbusObject.h"
#include "dbus_helper/Handles.h"

namespace Loop {
class Queue;
}

namespace DbusHelper {

class DbusServer {
  public:
    DbusServer(std::string serviceName, std::string objectPath, std::string description, bool systemBus,
               bool addObjectManager, sd_event* loop);
    virtual ~DbusServer();
    DbusServer(const DbusServer&) = delete;
    DbusServer& operator=(const DbusServer&) = delete;

    // Opens the bus, attaches it to the loop and requests the name. 0, or a negative errno (the bus is then
    // released again, and Start() may be retried). -EALREADY when already started.
    int Start();

    // From the next Start() on, a name owned elsewhere is queued for instead of failing: Start() returns
    // 0 with the connection kept and OwnsName() false, and `acquired` runs on the loop's thread when the
    // bus hands the name over (its owner left). A served name is never given up to another.
    void QueueForName(std::function<void()> acquired) { nameAcquired = std::move(acquired); }
    // Started and the well-known name is this connection's (always, on a direct connection).
    bool OwnsName() const { return bus != nullptr && ownsName; }

    // Drops the connection and every registration on it (the objects are kept, detached), so that
    // Start() can serve again, on a new connection. Loop thread, outside the bus's own callbacks.
    void Stop();

    // Registers the object's member table on its path and interface, with the object as user data; the
    // server keeps the object alive. The sd-bus result, -ENOTCONN before Start(), -EALREADY for an object
    // that is registered already, -EINVAL for a table without start or end entry.
    int AddObject(std::shared_ptr<DbusObject> object);

    // sd-bus's object manager reports only the objects below its path, so a service that lives on its
    // root path alone would report nothing. After Start(): answers GetManagedObjects on the root path
    // with the root's own interfaces and properties, and installs a manager on "/" (where generic
    // clients ask), which reports the root path. 0 or a negative errno.
    int ReportRootInManagedObjects();

    // Null before Start().
    sd_bus* Bus() const { return bus.get(); }
    bool IsStarted() const { return bus != nullptr; }
    // Started, and the connection still open (the bus has not gone away).
    bool IsConnected() const;
    const std::string& ServiceName() const { return serviceName; }
    const std::string& ObjectPath() const { return objectPath; }

  protected:
    // The connection Start() serves on: the system or the user bus. A fuzzer hands a started direct
    // connection instead, which has no bus to own a name on: Start() then requests none.
    virtual int OpenBus(sd_bus** connection);

  private:
    void Release();
    static int OnRootCall(sd_bus_message* m, void* userdata, sd_bus_error* error);
    static int OnNameAcquired(sd_bus_message* m, void* userdata, sd_bus_error* error);
    int RequestName(sd_bus* connection);
    int ReplyManagedObjects(sd_bus_message* m, sd_bus_error* error);

    std::string serviceName;
    std::string objectPath;
    std::string description;
    bool systemBus;
    bool addObjectManager;
    sd_event* loop;

    DbusHelper::Bus bus;
    Slot objectManager;
    Slot topObjectManager;
    Slot rootCalls;
    Slot acquiredMatch;
    std::function<void()> nameAcquired;
    bool ownsName = false;
    std::thread::id busThread;
    std::shared_ptr<Loop::Queue> queue;
    std::vector<std::shared_ptr<DbusObject>> objects;
};

}  // namespace DbusHelper
