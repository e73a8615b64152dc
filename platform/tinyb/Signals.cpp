// BlueZ's signals on the library thread: each is read once into the mirror, then followed where it
// means more (discovery sessions that BlueZ ended, value notifications).
#include <syslog.h>

#include "Core.h"
#include "logging/Log.h"
#include "loop/CBoundary.h"

namespace tinyb::detail {

int Core::OnObjectsLoaded(sd_bus_message* m, void* userdata, sd_bus_error*) {
    return CBoundary::Call("tinyb GetManagedObjects reply", [&] {
        if (sd_bus_message_is_method_error(m, nullptr)) {
            const sd_bus_error* e = sd_bus_message_get_error(m);
            Logging::Log(LOG_ERR, "tinyb: BlueZ did not list its objects: %s",
                         e && e->message ? e->message : "");
            return;
        }
        static_cast<Core*>(userdata)->mirror.Load(m);
    });
}

int Core::OnInterfacesAdded(sd_bus_message* m, void* userdata, sd_bus_error*) {
    return CBoundary::Call("tinyb InterfacesAdded", [&] {
        InterfacesAdded added = ReadInterfacesAdded(m);
        static_cast<Core*>(userdata)->mirror.Add(added);
    });
}

int Core::OnInterfacesRemoved(sd_bus_message* m, void* userdata, sd_bus_error*) {
    return CBoundary::Call("tinyb InterfacesRemoved", [&] {
        const InterfacesRemoved removed = ReadInterfacesRemoved(m);
        if (removed.mask != 0)
            static_cast<Core*>(userdata)->TakeRemoved(removed);
    });
}

int Core::OnPropertiesChanged(sd_bus_message* m, void* userdata, sd_bus_error*) {
    return CBoundary::Call("tinyb PropertiesChanged", [&] {
        std::optional<PropertiesChanged> change = ReadPropertiesChanged(m);
        if (change)
            static_cast<Core*>(userdata)->TakeChange(*change);
    });
}

int Core::OnNameOwnerChanged(sd_bus_message* m, void* userdata, sd_bus_error*) {
    return CBoundary::Call("tinyb NameOwnerChanged", [&] {
        const char *name = nullptr, *oldOwner = nullptr, *newOwner = nullptr;
        const int r = sd_bus_message_read(m, "sss", &name, &oldOwner, &newOwner);
        if (r < 0)
            throw BluetoothException("malformed NameOwnerChanged: " + ErrnoText(r));
        Core* core = static_cast<Core*>(userdata);
        if (oldOwner != nullptr && *oldOwner != '\0') {
            Logging::Log(LOG_WARNING, "tinyb: BlueZ left the system bus");
            core->ClearAll();
        }
        if (newOwner != nullptr && *newOwner != '\0') {
            Logging::Log(LOG_INFO, "tinyb: BlueZ is on the system bus, loading its objects");
            core->RequestObjects();
        }
    });
}

// ---------------------------------------------------------------- beyond the mirror

void Core::TakeRemoved(const InterfacesRemoved& removed) {
    if (!mirror.Remove(removed))
        return;
    if ((removed.mask & (1u << kAdapter)) != 0)
        discovery.Ended(removed.path);
    if ((removed.mask & (1u << kCharacteristic)) != 0)
        valueCallbacks.erase(removed.path);
}

void Core::TakeChange(PropertiesChanged& change) {
    EndSessionOnPowerOff(change);
    // A notification's value is copied out before the mirror takes it over.
    std::optional<Bytes> notified = NotifiedValue(change);
    if (!mirror.Change(change))
        return;
    if (notified)
        Notify(change.path, *notified);
}

// BlueZ ends every discovery session of an adapter that is powered off
void Core::EndSessionOnPowerOff(const PropertiesChanged& change) {
    if (change.iface != kAdapter)
        return;
    const Value* powered = change.changed.Get(kPowered);
    const bool* on = powered == nullptr ? nullptr : std::get_if<bool>(powered);
    if (on != nullptr && !*on)
        discovery.Ended(change.path);
}

std::optional<Bytes> Core::NotifiedValue(const PropertiesChanged& change) const {
    if (change.iface != kCharacteristic || valueCallbacks.count(change.path) == 0)
        return std::nullopt;
    const Value* value = change.changed.Get(kValue);
    const auto* bytes = value == nullptr ? nullptr : std::get_if<Bytes>(value);
    if (bytes == nullptr)
        return std::nullopt;
    return *bytes;
}

void Core::Notify(const char* path, Bytes& value) {
    auto callback = valueCallbacks.find(path);
    if (callback == valueCallbacks.end())
        return;
    // A copy: the callback may withdraw itself while it runs.
    auto function = callback->second;
    try {
        function(value);
    } catch (const std::exception& e) {
        Logging::Log(LOG_ERR, "tinyb: notification callback for %s threw: %s", path, e.what());
    } catch (...) {
        Logging::Log(LOG_ERR, "tinyb: notification callback for %s threw", path);
    }
}

void Core::ClearAll() {
    mirror.Clear();
    discovery.Clear();
    valueCallbacks.clear();
}

void Core::SetValueCallback(const std::string& path, BluetoothGattCharacteristic::ValueCallback callback) {
    valueCallbacks[path] = std::move(callback);
}

void Core::ClearValueCallback(const std::string& path) {
    valueCallbacks.erase(path);
}

}  // namespace tinyb::detail
