#include "dbus_helper/DbusConnector.h"

#include <cerrno>

#include "loop/CBoundary.h"

namespace DbusHelper {

namespace {
const char* OrNull(const std::string& text) {
    return text.empty() ? nullptr : text.c_str();
}
}  // namespace

DbusConnector::DbusConnector(sd_event* eventLoop) : loop(eventLoop) {}

DbusConnector::~DbusConnector() {
    // subclasses have released their part in their own destructors
    if (bus != nullptr) {
        sd_bus_detach_event(bus.get());
        bus.reset();
    }
}

int DbusConnector::Connect() {
    if (bus != nullptr)
        return -EALREADY;
    sd_bus* opened = nullptr;
    int r = sd_bus_open_user(&opened);
    if (r < 0)
        return r;
    DbusHelper::Bus connection(opened);
    r = sd_bus_attach_event(connection.get(), loop, SD_EVENT_PRIORITY_NORMAL);
    if (r < 0)
        return r;
    bus = std::move(connection);
    return 0;
}

void DbusConnector::Disconnect() {
    if (bus == nullptr)
        return;
    BeforeDisconnect();
    sd_bus_detach_event(bus.get());
    bus.reset();
}

DbusListener::DbusListener(sd_event* loop) : DbusConnector(loop) {}

DbusListener::~DbusListener() {
    BeforeDisconnect();
}

void DbusListener::BeforeDisconnect() {
    for (auto& subscription : subscriptions)
        subscription->slot.reset();
    subscriptions.clear();
}

int DbusListener::ListenSignal(const std::string& sender, const std::string& path,
                               const std::string& interface, const std::string& member,
                               sd_bus_message_handler_t callback, void* userdata) {
    if (Bus() == nullptr)
        return -ENOTCONN;
    if (callback == nullptr)
        return -EINVAL;
    auto subscription = std::make_unique<Subscription>();
    subscription->callback = callback;
    subscription->userdata = userdata;
    subscription->where =
        "signal " + interface + "." + member + " from " + (sender.empty() ? "any sender" : sender);
    sd_bus_slot* slot = nullptr;
    const int r = sd_bus_match_signal(Bus(), &slot, OrNull(sender), OrNull(path), OrNull(interface),
                                      OrNull(member), &DbusListener::Trampoline, subscription.get());
    if (r < 0)
        return r;
    subscription->slot.reset(slot);
    subscriptions.push_back(std::move(subscription));
    return 0;
}

int DbusListener::ListenNameAppeared(const std::string& name, std::function<void()> appeared) {
    if (Bus() == nullptr)
        return -ENOTCONN;
    if (!appeared)
        return -EINVAL;
    auto subscription = std::make_unique<Subscription>();
    subscription->appeared = std::move(appeared);
    subscription->where = "owner of " + name;
    // the bus daemon filters on the name (arg0): no traffic for the bus's other clients
    const std::string rule =
        "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',"
        "interface='org.freedesktop.DBus',member='NameOwnerChanged',arg0='" +
        name + "'";
    sd_bus_slot* slot = nullptr;
    const int r =
        sd_bus_add_match(Bus(), &slot, rule.c_str(), &DbusListener::NameOwnerChanged, subscription.get());
    if (r < 0)
        return r;
    subscription->slot.reset(slot);
    subscriptions.push_back(std::move(subscription));
    return 0;
}

int DbusListener::NameOwnerChanged(sd_bus_message* m, void* userdata, sd_bus_error*) {
    auto* subscription = static_cast<Subscription*>(userdata);
    return CBoundary::Call(subscription->where.c_str(), [&] {
        const char* name = nullptr;
        const char* oldOwner = nullptr;
        const char* newOwner = nullptr;
        const int r = sd_bus_message_read(m, "sss", &name, &oldOwner, &newOwner);
        if (r < 0)
            return r;
        if (newOwner != nullptr && newOwner[0] != '\0')
            subscription->appeared();
        return 0;
    });
}

int DbusListener::Trampoline(sd_bus_message* m, void* userdata, sd_bus_error* error) {
    auto* subscription = static_cast<Subscription*>(userdata);
    return CBoundary::Call(subscription->where.c_str(),
                           [&] { return subscription->callback(m, subscription->userdata, error); });
}

}  // namespace DbusHelper
