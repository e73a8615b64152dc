#pragma once
// The client's copy of BlueZ's objects: what GetManagedObjects listed, kept current from InterfacesAdded,
// InterfacesRemoved and PropertiesChanged. The library thread writes it; any thread reads it.

#include <systemd/sd-bus.h>

#include <list>
#include <memory>
#include <optional>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "Wire.h"

namespace tinyb::detail {

// One BlueZ object as last reported. Shared with the handles that refer to it, so that a handle outlives
// the object's removal; written only under the mirror's lock, and never after removal.
struct Object {
    std::string path;
    unsigned mask = 0;  // a bit per mirrored interface
    bool alive = true;
    IfaceProps props;
};

// InterfacesAdded, and each object of a GetManagedObjects reply.
struct InterfacesAdded {
    const char* path = nullptr;  // points into the message
    IfaceProps props;
    unsigned mask = 0;
};
// InterfacesRemoved; `mask` holds the mirrored interfaces only.
struct InterfacesRemoved {
    const char* path = nullptr;
    unsigned mask = 0;
};
// PropertiesChanged of one mirrored interface.
struct PropertiesChanged {
    const char* path = nullptr;
    Iface iface = kIfaceCount;
    PropSet changed;
    std::vector<Prop> invalidated;
};

// Each reads a whole signal body and throws BluetoothException when it is malformed.
InterfacesAdded ReadInterfacesAdded(sd_bus_message* m);
InterfacesRemoved ReadInterfacesRemoved(sd_bus_message* m);
// nullopt for an interface the client does not mirror (the rest of the body is left unread).
std::optional<PropertiesChanged> ReadPropertiesChanged(sd_bus_message* m);

class Mirror {
  public:
    // ---- readers (any thread)

    // The object at `path`, or else `hint`: a handle keeps the last values of an object BlueZ dropped, as
    // a proxy would. Throws BluetoothException when there is neither or it lacks the property's
    // interface; nullopt when the property is absent or of another type.
    template <typename T>
    std::optional<T> Property(const std::string& path, const Object* hint, Prop prop) const {
        std::shared_lock<std::shared_mutex> lock(mutex);
        const Value* value = Locate(path, hint, IfaceOf(prop)).Get(prop);
        if (value == nullptr)
            return std::nullopt;
        if (const T* v = std::get_if<T>(value))
            return *v;
        return std::nullopt;
    }
    struct Child {
        std::string path;
        std::shared_ptr<const Object> object;
    };
    // The objects whose object-path property `parent` (Device1.Adapter, ...) is `path`, in BlueZ's order.
    std::vector<Child> Children(Prop parent, const std::string& path) const;
    // Adapter paths, lowest hciN first.
    std::vector<std::string> Adapters() const;

    // ---- writers (library thread only)

    // Takes in a GetManagedObjects reply; throws BluetoothException when it is malformed.
    void Load(sd_bus_message* reply);
    void Add(InterfacesAdded& added);
    // False when the object was not mirrored.
    bool Remove(const InterfacesRemoved& removed);
    // False when BlueZ has not announced the interface there: such a change is stale and left out.
    bool Change(PropertiesChanged& change);
    // Merges freshly read properties of an interface that is still announced.
    void Merge(const std::string& path, Iface iface, PropSet&& fresh);
    // BlueZ left the bus: every object is gone, handles keep their last values.
    void Clear();

  private:
    const PropSet& Locate(const std::string& path, const Object* hint, Iface iface) const;
    // The properties of `iface` at `path` while BlueZ has announced that interface there, else null.
    // Callers hold `mutex` exclusively.
    PropSet* Mirrored(const std::string& path, Iface iface);
    void AddAdapter(const std::string& path);

    // Held shared by readers, exclusively by the library thread while it writes; guards every field
    // below and the Object records they point to.
    mutable std::shared_mutex mutex;
    std::list<std::shared_ptr<Object>> objects;  // BlueZ's order
    std::unordered_map<std::string, std::list<std::shared_ptr<Object>>::iterator> index;
    std::vector<std::string> adapters;  // lowest hciN first
};

}  // namespace tinyb::detail
