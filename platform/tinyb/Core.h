#pragma once
// The shared heart of the client: one thread running an sd-event loop with its own system-bus
// connection. It owns the mirror of BlueZ's objects, the pump that carries calls onto that thread and the
// discovery sessions, routes BlueZ's signals into them, and delivers value notifications.

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "CallPump.h"
#include "Discovery.h"
#include "Mirror.h"
#include "Wire.h"
#include "dbus_helper/Handles.h"
#include "tinyb/BluetoothException.hpp"
#include "tinyb/BluetoothGattCharacteristic.hpp"

namespace tinyb::detail {

class Core {
  public:
    // Starts the library thread, connects and loads BlueZ's objects. Throws BluetoothException.
    static std::shared_ptr<Core> Start();
    ~Core();
    Core(const Core&) = delete;
    Core& operator=(const Core&) = delete;

    // ---- cache (any thread): see Mirror
    template <typename T>
    std::optional<T> Property(const std::string& path, const Object* hint, Prop prop) const {
        return mirror.Property<T>(path, hint, prop);
    }
    template <typename T>
    T PropertyOr(const std::string& path, const Object* hint, Prop prop, T fallback) const {
        auto v = Property<T>(path, hint, prop);
        return v ? std::move(*v) : std::move(fallback);
    }
    std::vector<Mirror::Child> Children(Prop parent, const std::string& path) const {
        return mirror.Children(parent, path);
    }
    std::vector<std::string> Adapters() const { return mirror.Adapters(); }

    // ---- calls (any thread; blocking): see CallPump
    using Append = CallPump::Append;
    template <typename R>
    R Call(const std::string& path, const char* iface, const char* member, Append append,
           std::function<R(sd_bus_message*)> read, uint64_t timeoutUsec = kCallTimeoutUsec) {
        return pump.Call<R>(path, iface, member, std::move(append), std::move(read), timeoutUsec);
    }
    void CallVoid(const std::string& path, const char* iface, const char* member, Append append = nullptr,
                  uint64_t timeoutUsec = kCallTimeoutUsec) {
        pump.CallVoid(path, iface, member, std::move(append), timeoutUsec);
    }
    // org.freedesktop.DBus.Properties.Set of a boolean property.
    void SetBool(const std::string& path, Prop prop, bool value);
    // Reads one interface's properties back from BlueZ into the cache. BlueZ does not always signal a
    // change that a call made (a link it already counted as up emits no Connected), so callers resync
    // after such calls.
    void Refresh(const std::string& path, Iface iface);
    void RunOnLoop(std::function<void()> task) { pump.RunOnLoop(std::move(task)); }
    bool OnLoopThread() const { return pump.OnLoopThread(); }

    // ---- discovery sessions of this process: see Discovery
    bool StartDiscovery(const std::string& adapter) { return discovery.Start(adapter); }
    bool StopDiscovery(const std::string& adapter) { return discovery.Stop(adapter); }
    bool DiscoverySession(const std::string& adapter) const { return discovery.Running(adapter); }

    // ---- value notifications (library thread only: use RunOnLoop)
    void SetValueCallback(const std::string& path, BluetoothGattCharacteristic::ValueCallback callback);
    void ClearValueCallback(const std::string& path);

  private:
    Core() : discovery(pump) {}
    struct Failure {
        bool failed = false;
        std::string name;
        std::string message;
    };
    void Run(std::promise<Failure>& started);
    void Setup();
    void Teardown();
    void AddMatches();
    void RequestObjects();

    // What each signal means beyond the mirror.
    void TakeRemoved(const InterfacesRemoved& removed);
    void TakeChange(PropertiesChanged& change);
    void EndSessionOnPowerOff(const PropertiesChanged& change);
    std::optional<Bytes> NotifiedValue(const PropertiesChanged& change) const;
    void Notify(const char* path, Bytes& value);
    void ClearAll();

    static int OnInterfacesAdded(sd_bus_message* m, void* userdata, sd_bus_error* error);
    static int OnInterfacesRemoved(sd_bus_message* m, void* userdata, sd_bus_error* error);
    static int OnPropertiesChanged(sd_bus_message* m, void* userdata, sd_bus_error* error);
    static int OnNameOwnerChanged(sd_bus_message* m, void* userdata, sd_bus_error* error);
    static int OnObjectsLoaded(sd_bus_message* m, void* userdata, sd_bus_error* error);

    // Written by Start; read by whichever thread drops the client.
    std::thread thread;
    // Library thread only (released, not freed, when the client is dropped there).
    DbusHelper::Event event;
    DbusHelper::Bus bus;
    std::vector<DbusHelper::Slot> matches;

    // Each guards its own state; see their fields.
    CallPump pump;
    Mirror mirror;
    Discovery discovery;

    // Library thread only.
    std::unordered_map<std::string, BluetoothGattCharacteristic::ValueCallback> valueCallbacks;
};

}  // namespace tinyb::detail
