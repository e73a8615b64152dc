#include "Mirror.h"

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <mutex>

#include "tinyb/BluetoothException.hpp"

namespace tinyb::detail {

namespace {

// hciN -> N for ordering; other names sort after every hciN
unsigned long AdapterIndex(const std::string& path) {
    const auto slash = path.rfind('/');
    const std::string leaf = path.substr(slash == std::string::npos ? 0 : slash + 1);
    if (leaf.rfind("hci", 0) != 0 || leaf.size() == 3)
        return ~0UL;
    char* end = nullptr;
    const unsigned long n = std::strtoul(leaf.c_str() + 3, &end, 10);
    return *end == '\0' ? n : ~0UL;
}

bool Has(unsigned mask, unsigned iface) {
    return (mask & (1u << iface)) != 0;
}

}  // namespace

// ---------------------------------------------------------------- signal bodies

InterfacesAdded ReadInterfacesAdded(sd_bus_message* m) {
    InterfacesAdded added;
    int r = sd_bus_message_read_basic(m, SD_BUS_TYPE_OBJECT_PATH, &added.path);
    if (r >= 0)
        r = ReadInterfaces(m, added.props, added.mask);
    if (r < 0)
        throw BluetoothException("malformed InterfacesAdded: " + ErrnoText(r));
    return added;
}

InterfacesRemoved ReadInterfacesRemoved(sd_bus_message* m) {
    InterfacesRemoved removed;
    int r = sd_bus_message_read_basic(m, SD_BUS_TYPE_OBJECT_PATH, &removed.path);
    if (r >= 0)
        r = sd_bus_message_enter_container(m, SD_BUS_TYPE_ARRAY, "s");
    const char* name = nullptr;
    while (r >= 0 && (r = sd_bus_message_read_basic(m, SD_BUS_TYPE_STRING, &name)) > 0) {
        const int iface = IfaceFromName(name);
        if (iface >= 0)
            removed.mask |= 1u << iface;
    }
    if (r < 0)
        throw BluetoothException("malformed InterfacesRemoved: " + ErrnoText(r));
    return removed;
}

std::optional<PropertiesChanged> ReadPropertiesChanged(sd_bus_message* m) {
    const char* path = sd_bus_message_get_path(m);
    const char* name = nullptr;
    int r = sd_bus_message_read_basic(m, SD_BUS_TYPE_STRING, &name);
    if (r < 0 || path == nullptr)
        throw BluetoothException("malformed PropertiesChanged");
    const int iface = IfaceFromName(name);
    if (iface < 0)
        return std::nullopt;
    PropertiesChanged change;
    change.path = path;
    change.iface = static_cast<Iface>(iface);
    r = ReadProperties(m, change.iface, change.changed);
    if (r >= 0)
        r = ReadInvalidated(m, change.iface, change.invalidated);
    if (r < 0)
        throw BluetoothException("malformed PropertiesChanged: " + ErrnoText(r));
    return change;
}

// ---------------------------------------------------------------- readers

const PropSet& Mirror::Locate(const std::string& path, const Object* hint, Iface iface) const {
    const Object* object = hint;
    if (object == nullptr || !object->alive) {
        auto it = index.find(path);
        if (it != index.end())
            object = it->second->get();
    }
    if (object == nullptr || !Has(object->mask, iface)) {
        throw BluetoothException("org.freedesktop.DBus.Error.UnknownObject",
                                 "BlueZ has no " + std::string(kIfaceNames[iface]) + " at " + path);
    }
    return object->props[iface];
}

std::vector<Mirror::Child> Mirror::Children(Prop parent, const std::string& path) const {
    const Iface iface = IfaceOf(parent);
    std::vector<Child> children;
    std::shared_lock<std::shared_mutex> lock(mutex);
    for (const auto& object : objects) {
        if (!Has(object->mask, iface))
            continue;
        const Value* value = object->props[iface].Get(parent);
        const auto* text = value == nullptr ? nullptr : std::get_if<std::string>(value);
        if (text != nullptr && *text == path)
            children.push_back({object->path, object});
    }
    return children;
}

std::vector<std::string> Mirror::Adapters() const {
    std::shared_lock<std::shared_mutex> lock(mutex);
    return adapters;
}

// ---------------------------------------------------------------- writers

PropSet* Mirror::Mirrored(const std::string& path, Iface iface) {
    auto it = index.find(path);
    if (it == index.end() || !Has((*it->second)->mask, iface))
        return nullptr;
    return &(*it->second)->props[iface];
}

void Mirror::Load(sd_bus_message* reply) {
    int r = sd_bus_message_enter_container(reply, SD_BUS_TYPE_ARRAY, "{oa{sa{sv}}}");
    while (r >= 0 && (r = sd_bus_message_enter_container(reply, SD_BUS_TYPE_DICT_ENTRY, "oa{sa{sv}}")) > 0) {
        InterfacesAdded added;
        if ((r = sd_bus_message_read_basic(reply, SD_BUS_TYPE_OBJECT_PATH, &added.path)) < 0)
            break;
        if ((r = ReadInterfaces(reply, added.props, added.mask)) < 0)
            break;
        Add(added);
        r = sd_bus_message_exit_container(reply);
    }
    if (r >= 0)
        r = sd_bus_message_exit_container(reply);
    if (r < 0)
        throw BluetoothException("malformed GetManagedObjects reply from BlueZ: " + ErrnoText(r));
}

void Mirror::Add(InterfacesAdded& added) {
    if (added.mask == 0)
        return;
    std::unique_lock<std::shared_mutex> lock(mutex);
    auto it = index.find(added.path);
    if (it == index.end()) {
        auto object = std::make_shared<Object>();
        object->path = added.path;
        objects.push_back(std::move(object));
        it = index.emplace(added.path, std::prev(objects.end())).first;
    }
    Object& object = **it->second;
    for (unsigned i = 0; i < kIfaceCount; ++i) {
        if (Has(added.mask, i))
            object.props[i].Merge(std::move(added.props[i]));
    }
    if (Has(added.mask, kAdapter) && !Has(object.mask, kAdapter))
        AddAdapter(object.path);
    object.mask |= added.mask;
}

void Mirror::AddAdapter(const std::string& path) {
    adapters.push_back(path);
    std::stable_sort(adapters.begin(), adapters.end(), [](const std::string& a, const std::string& b) {
        const auto ia = AdapterIndex(a), ib = AdapterIndex(b);
        return ia != ib ? ia < ib : a < b;
    });
}

bool Mirror::Remove(const InterfacesRemoved& removed) {
    std::unique_lock<std::shared_mutex> lock(mutex);
    auto it = index.find(removed.path);
    if (it == index.end())
        return false;
    Object& object = **it->second;
    if (Has(removed.mask & object.mask, kAdapter))
        adapters.erase(std::remove(adapters.begin(), adapters.end(), object.path), adapters.end());
    if ((object.mask & ~removed.mask) == 0) {
        // Gone: handles keep its last values.
        object.alive = false;
        objects.erase(it->second);
        index.erase(it);
        return true;
    }
    for (unsigned i = 0; i < kIfaceCount; ++i) {
        if (Has(removed.mask, i))
            object.props[i].Clear();
    }
    object.mask &= ~removed.mask;
    return true;
}

bool Mirror::Change(PropertiesChanged& change) {
    std::unique_lock<std::shared_mutex> lock(mutex);
    // BlueZ announces an interface before changing it; anything else is stale
    PropSet* props = Mirrored(change.path, change.iface);
    if (props == nullptr)
        return false;
    props->Merge(std::move(change.changed));
    for (Prop gone : change.invalidated)
        props->Erase(gone);
    return true;
}

void Mirror::Merge(const std::string& path, Iface iface, PropSet&& fresh) {
    std::unique_lock<std::shared_mutex> lock(mutex);
    if (PropSet* props = Mirrored(path, iface))
        props->Merge(std::move(fresh));
}

void Mirror::Clear() {
    std::unique_lock<std::shared_mutex> lock(mutex);
    for (auto& object : objects)
        object->alive = false;
    objects.clear();
    index.clear();
    adapters.clear();
}

}  // namespace tinyb::detail
