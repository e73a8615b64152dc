#include "dbus_helper/DbusObject.h"

#include <cerrno>
#include <cstdarg>

#include "logging/Log.h"
#include "loop/CBoundary.h"
#include "loop/Queue.h"

namespace DbusHelper {

DbusObject::DbusObject(std::string objectPath, std::string interfaceName)
    : path(std::move(objectPath)), interface(std::move(interfaceName)) {
    methodWhere = interface + " method call";
    getWhere = interface + " property get";
    setWhere = interface + " property set";
}

DbusObject::~DbusObject() {
    Detach();
}

int DbusObject::Attach(sd_bus* connection, std::thread::id thread, std::shared_ptr<Loop::Queue> loopQueue) {
    if (bus != nullptr)
        return -EALREADY;
    if (vtable.empty() || vtable.front().type != _SD_BUS_VTABLE_START ||
        vtable.back().type != _SD_BUS_VTABLE_END)
        return -EINVAL;

    std::vector<sd_bus_vtable> table = vtable;
    std::map<std::string, sd_bus_message_handler_t> methodTable;
    std::map<std::string, std::pair<sd_bus_property_get_t, sd_bus_property_set_t>> propertyTable;
    for (auto& entry : table) {
        switch (entry.type) {
            case _SD_BUS_VTABLE_METHOD:
                methodTable[entry.x.method.member] = entry.x.method.handler;
                entry.x.method.handler = &DbusObject::MethodTrampoline;
                break;
            case _SD_BUS_VTABLE_PROPERTY:
            case _SD_BUS_VTABLE_WRITABLE_PROPERTY:
                // a property without getter reads the user data's memory in sd-bus: never on our objects
                if (entry.x.property.get == nullptr)
                    return -EINVAL;
                propertyTable[entry.x.property.member] = {entry.x.property.get, entry.x.property.set};
                entry.x.property.get = &DbusObject::GetTrampoline;
                if (entry.x.property.set != nullptr)
                    entry.x.property.set = &DbusObject::SetTrampoline;
                break;
            default:
                break;
        }
    }
    registered = std::move(table);
    methods = std::move(methodTable);
    properties = std::move(propertyTable);

    sd_bus_slot* added = nullptr;
    const int r = sd_bus_add_object_vtable(connection, &added, path.c_str(), interface.c_str(),
                                           registered.data(), this);
    if (r < 0)
        return r;
    slot.reset(added);
    bus.reset(sd_bus_ref(connection));
    busThread = thread;
    queue = std::move(loopQueue);
    return r;
}

void DbusObject::Detach() {
    slot.reset();
    bus.reset();
    queue.reset();
}

int DbusObject::MethodTrampoline(sd_bus_message* m, void* userdata, sd_bus_error* error) {
    auto* self = static_cast<DbusObject*>(userdata);
    return CBoundary::Call(self->methodWhere.c_str(), [&]() -> int {
        const char* member = sd_bus_message_get_member(m);
        const auto it = self->methods.find(member != nullptr ? member : "");
        if (it == self->methods.end())
            return -EBADR;
        return it->second(m, userdata, error);
    });
}

int DbusObject::GetTrampoline(sd_bus* bus, const char* path, const char* interface, const char* property,
                              sd_bus_message* reply, void* userdata, sd_bus_error* error) {
    auto* self = static_cast<DbusObject*>(userdata);
    return CBoundary::Call(self->getWhere.c_str(), [&]() -> int {
        const auto it = self->properties.find(property != nullptr ? property : "");
        if (it == self->properties.end() || it->second.first == nullptr)
            return -EBADR;
        return it->second.first(bus, path, interface, property, reply, userdata, error);
    });
}

int DbusObject::SetTrampoline(sd_bus* bus, const char* path, const char* interface, const char* property,
                              sd_bus_message* value, void* userdata, sd_bus_error* error) {
    auto* self = static_cast<DbusObject*>(userdata);
    return CBoundary::Call(self->setWhere.c_str(), [&]() -> int {
        const auto it = self->properties.find(property != nullptr ? property : "");
        if (it == self->properties.end() || it->second.second == nullptr)
            return -EBADR;
        return it->second.second(bus, path, interface, property, value, userdata, error);
    });
}

int DbusObject::AppendProperties(sd_bus_message* reply, sd_bus_error* error) {
    int r = sd_bus_message_open_container(reply, 'a', "{sv}");
    for (const auto& entry : registered) {
        if (r < 0)
            return r;
        if (entry.type != _SD_BUS_VTABLE_PROPERTY && entry.type != _SD_BUS_VTABLE_WRITABLE_PROPERTY)
            continue;
        const char* name = entry.x.property.member;
        r = sd_bus_message_open_container(reply, 'e', "sv");
        if (r >= 0)
            r = sd_bus_message_append_basic(reply, 's', name);
        if (r >= 0)
            r = sd_bus_message_open_container(reply, 'v', entry.x.property.signature);
        if (r >= 0)
            r = GetTrampoline(bus.get(), path.c_str(), interface.c_str(), name, reply, this, error);
        if (r >= 0)
            r = sd_bus_message_close_container(reply);
        if (r >= 0)
            r = sd_bus_message_close_container(reply);
    }
    return r < 0 ? r : sd_bus_message_close_container(reply);
}

bool DbusObject::IsBusThread() const {
    return bus == nullptr || std::this_thread::get_id() == busThread;
}

void DbusObject::OnBusThread(std::function<void()> task) {
    if (queue == nullptr || IsBusThread()) {
        task();
        return;
    }
    queue->Post(std::move(task));
}

int DbusObject::EmitSignal(const char* member, const char* types, ...) {
    if (bus == nullptr)
        return -ENOTCONN;
    if (!IsBusThread()) {
        Logging::Log(LOG_ERR, "%s.%s: signal not emitted: called off the bus thread", interface.c_str(),
                     member != nullptr ? member : "");
        return -EXDEV;
    }
    va_list ap;
    va_start(ap, types);
    const int r = sd_bus_emit_signalv(bus.get(), path.c_str(), interface.c_str(), member, types, ap);
    va_end(ap);
    return r;
}

int DbusObject::EmitPropertiesChanged(const std::vector<std::string>& names) {
    if (bus == nullptr)
        return -ENOTCONN;
    if (!IsBusThread()) {
        Logging::Log(LOG_ERR, "%s: properties change not emitted: called off the bus thread",
                     interface.c_str());
        return -EXDEV;
    }
    std::vector<char*> list;
    list.reserve(names.size() + 1);
    for (const auto& name : names)
        list.push_back(const_cast<char*>(name.c_str()));
    list.push_back(nullptr);
    return sd_bus_emit_properties_changed_strv(bus.get(), path.c_str(), interface.c_str(), list.data());
}

}  // namespace DbusHelper
