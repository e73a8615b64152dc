#pragma once
// One D-Bus interface on one object path, served by a DbusHelper::DbusServer.
//
// A subclass fills Vtable() with the sdbus_utils::vtable builders in its constructor; the server's
// AddObject registers the table with the object itself as user data (a DbusObject*: subclasses get back
// to themselves with FromUserdata<Derived>(userdata)). Every callback of the table then runs behind an
// exception barrier (CBoundary): an exception becomes a negative errno, which sd-bus turns into an error
// reply.
//
// Threads: sd-bus objects are not thread-safe. A registered object is used from the thread that runs its
// server's event loop (the bus thread) only. Worker threads hand emissions over with OnBusThread(), which
// posts to the server's Loop::Queue ("loop/Queue.h"); the emission helpers below refuse
// to run on any other thread (-EXDEV, logged) rather than race the loop.

#include <systemd/sd-bus.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "dbus_helper/Handles.h"

namespace Loop {
class Queue;
}

namespace DbusHelper {

class DbusServer;

class DbusObject {
  public:
    DbusObject(std::string path, std::string interface);
    virtual ~DbusObject();
    DbusObject(const DbusObject&) = delete;
    DbusObject& operator=(const DbusObject&) = delete;

    // The bus the object is registered on, or null before AddObject / after its server is gone.
    sd_bus* Bus() const { return bus.get(); }
    const std::string& Path() const { return path; }
    const std::string& Interface() const { return interface; }
    std::vector<sd_bus_vtable>& Vtable() { return vtable; }
    const std::vector<sd_bus_vtable>& Vtable() const { return vtable; }
    bool IsRegistered() const { return bus != nullptr; }

    // sd_bus_emit_signal on this object's bus, path and interface. Bus thread only.
    int EmitSignal(const char* member, const char* types, ...);
    // sd_bus_emit_properties_changed for these properties of this interface. Bus thread only.
    int EmitPropertiesChanged(const std::vector<std::string>& names);

    // Appends this interface's properties as an a{sv} (each read through its getter, as a Get would);
    // for answers that sd-bus does not build itself. Bus thread only.
    int AppendProperties(sd_bus_message* reply, sd_bus_error* error);

    // True on the bus thread (and, before registration, on any thread: there is no bus to race).
    bool IsBusThread() const;
    // Runs `task` now when called on the bus thread (or before registration), otherwise hands it to the
    // bus thread, where it runs in posting order. Exceptions of a posted task are logged and dropped.
    void OnBusThread(std::function<void()> task);

    template <typename Derived>
    static Derived* FromUserdata(void* userdata) {
        return static_cast<Derived*>(static_cast<DbusObject*>(userdata));
    }

  private:
    friend class DbusServer;

    // sd-bus calls these; they find the subclass's callback by member name and call it behind CBoundary.
    static int MethodTrampoline(sd_bus_message* m, void* userdata, sd_bus_error* error);
    static int GetTrampoline(sd_bus* bus, const char* path, const char* interface, const char* property,
                             sd_bus_message* reply, void* userdata, sd_bus_error* error);
    static int SetTrampoline(sd_bus* bus, const char* path, const char* interface, const char* property,
                             sd_bus_message* value, void* userdata, sd_bus_error* error);

    // Registers the object on `bus`; called by DbusServer::AddObject on the bus thread.
    int Attach(sd_bus* bus, std::thread::id busThread, std::shared_ptr<Loop::Queue> queue);
    void Detach();

    std::string path;
    std::string interface;
    std::vector<sd_bus_vtable> vtable;

    // what is registered: a copy of vtable_ whose callbacks are the trampolines
    std::vector<sd_bus_vtable> registered;
    std::map<std::string, sd_bus_message_handler_t> methods;
    std::map<std::string, std::pair<sd_bus_property_get_t, sd_bus_property_set_t>> properties;
    std::string methodWhere;
    std::string getWhere;
    std::string setWhere;

    BusRef bus;  // while registered
    Slot slot;
    std::thread::id busThread;
    std::shared_ptr<Loop::Queue> queue;
};

}  // namespace DbusHelper
