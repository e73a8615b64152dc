#include "dbus_helper/DbusObject.h"

#include <cerrno>
#include <cstdarg>

#include "logging/Log.h"
#include "loop/CBoundary.h"
#include "loop/Queue.h"

namespace DbusHelper {

DbusObject::DbusObject(std::string objectPath, std::string interfaceName)
    : path_(std::move(objectPath)), interface_(std::move(interfaceName)) {
    methodWhere_ = interface_ + " method call";
    getWhere_ = interface_ + " property get";
    setWhere_ = interface_ + " property set";
}

DbusObject::~DbusObject() {
    Detach();
}

int DbusObject::Attach(sd_bus* connection, std::thread::id thread, std::shared_ptr<Loop::Queue> loopQueue) {
    if (bus_ != nullptr)
        return -EALREADY;
    if (vtable_.empty() || vtable_.front().type != _SD_BUS_VTABLE_START ||
        vtable_.back().type != _SD_BUS_VTABLE_END)
        return -EINVAL;

    std::vector<sd_bus_vtable> table = vtable_;
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
    registered_ = std::move(table);
    methods_ = std::move(methodTable);
    properties_ = std::move(propertyTable);

    sd_bus_slot* added = nullptr;
    const int r = sd_bus_add_object_vtable(connection, &added, path_.c_str(), interface_.c_str(),
                                           registered_.data(), this);
    if (r < 0)
        return r;
    slot_.reset(added);
    bus_.reset(sd_bus_ref(connection));
    busThread_ = thread;
    queue_ = std::move(loopQueue);
    return r;
}

void DbusObject::Detach() {
    slot_.reset();
    bus_.reset();
    queue_.reset();
}

int DbusObject::MethodTrampoline(sd_bus_message* m, void* userdata, sd_bus_error* error) {
    auto* self = static_cast<DbusObject*>(userdata);
    return CBoundary::Call(self->methodWhere_.c_str(), [&]() -> int {
        const char* member = sd_bus_message_get_member(m);
        const auto it = self->methods_.find(member != nullptr ? member : "");
        if (it == self->methods_.end())
            return -EBADR;
        return it->second(m, userdata, error);
    });
}

int DbusObject::GetTrampoline(sd_bus* bus, const char* path, const char* interface, const char* property,
                              sd_bus_message* reply, void* userdata, sd_bus_error* error) {
    auto* self = static_cast<DbusObject*>(userdata);
    return CBoundary::Call(self->getWhere_.c_str(), [&]() -> int {
        const auto it = self->properties_.find(property != nullptr ? property : "");
        if (it == self->properties_.end() || it->second.first == nullptr)
            return -EBADR;
        return it->second.first(bus, path, interface, property, reply, userdata, error);
    });
}

int DbusObject::SetTrampoline(sd_bus* bus, const char* path, const char* interface, const char* property,
                              sd_bus_message* value, void* userdata, sd_bus_error* error) {
    auto* self = static_cast<DbusObject*>(userdata);
    return CBoundary::Call(self->setWhere_.c_str(), [&]() -> int {
        const auto it = self->properties_.find(property != nullptr ? property : "");
        if (it == self->properties_.end() || it->second.second == nullptr)
            return -EBADR;
        return it->second.second(bus, path, interface, property, value, userdata, error);
    });
}

bool DbusObject::IsBusThread() const {
    return bus_ == nullptr || std::this_thread::get_id() == busThread_;
}

void DbusObject::OnBusThread(std::function<void()> task) {
    if (queue_ == nullptr || IsBusThread()) {
        task();
        return;
    }
    queue_->Post(std::move(task));
}

int DbusObject::EmitSignal(const char* member, const char* types, ...) {
    if (bus_ == nullptr)
        return -ENOTCONN;
    if (!IsBusThread()) {
        Logging::Log(LOG_ERR, "%s.%s: signal not emitted: called off the bus thread", interface_.c_str(),
                     member != nullptr ? member : "");
        return -EXDEV;
    }
    va_list ap;
    va_start(ap, types);
    const int r = sd_bus_emit_signalv(bus_.get(), path_.c_str(), interface_.c_str(), member, types, ap);
    va_end(ap);
    return r;
}

int DbusObject::EmitPropertiesChanged(const std::vector<std::string>& names) {
    if (bus_ == nullptr)
        return -ENOTCONN;
    if (!IsBusThread()) {
        Logging::Log(LOG_ERR, "%s: properties change not emitted: called off the bus thread",
                     interface_.c_str());
        return -EXDEV;
    }
    std::vector<char*> list;
    list.reserve(names.size() + 1);
    for (const auto& name : names)
        list.push_back(const_cast<char*>(name.c_str()));
    list.push_back(nullptr);
    return sd_bus_emit_properties_changed_strv(bus_.get(), path_.c_str(), interface_.c_str(), list.data());
}

}  // namespace DbusHelper
