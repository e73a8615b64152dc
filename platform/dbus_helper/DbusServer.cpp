#include "dbus_helper/DbusServer.h"

#include <cerrno>
#include <exception>

#include "logging/Log.h"
#include "loop/CBoundary.h"
#include "loop/Queue.h"

namespace DbusHelper {

DbusServer::DbusServer(std::string name, std::string rootPath, std::string connectionDescription,
                       bool onSystemBus, bool withObjectManager, sd_event* eventLoop)
    : serviceName(std::move(name)),
      objectPath(std::move(rootPath)),
      description(std::move(connectionDescription)),
      systemBus(onSystemBus),
      addObjectManager(withObjectManager),
      loop(eventLoop) {}

DbusServer::~DbusServer() {
    Release();
}

int DbusServer::Start() {
    if (bus != nullptr)
        return -EALREADY;
    sd_bus* connection = nullptr;
    int r = OpenBus(&connection);
    if (r < 0)
        return r;
    bus.reset(connection);
    busThread = std::this_thread::get_id();

    if (!description.empty())
        sd_bus_set_description(connection, description.c_str());  // cosmetic only
    r = sd_bus_attach_event(connection, loop, SD_EVENT_PRIORITY_NORMAL);
    if (r >= 0) {
        try {
            queue = std::make_shared<Loop::Queue>(sd_bus_get_event(connection));
        } catch (const std::exception& e) {
            Logging::Log(LOG_ERR, "%s: cannot hand work to the bus thread: %s", serviceName.c_str(),
                         e.what());
            r = -ENOMEM;
        }
    }
    if (r >= 0 && addObjectManager) {
        sd_bus_slot* slot = nullptr;
        r = sd_bus_add_object_manager(connection, &slot, objectPath.c_str());
        objectManager.reset(slot);
    }
    // last: once the name is ours, callers may arrive
    if (r >= 0)
        r = RequestName(connection);
    if (r < 0) {
        Release();
        return r;
    }
    return 0;
}

int DbusServer::RequestName(sd_bus* connection) {
    // a direct connection has no bus to own a name on
    if (sd_bus_is_bus_client(connection) <= 0) {
        ownsName = true;
        return 0;
    }
    if (!nameAcquired) {
        const int r = sd_bus_request_name(connection, serviceName.c_str(), 0);
        ownsName = r >= 0;
        return r;
    }
    // watched before asking, so that a hand-over right after the answer is not missed
    sd_bus_slot* slot = nullptr;
    int r = sd_bus_match_signal(connection, &slot, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                "org.freedesktop.DBus", "NameAcquired", &DbusServer::OnNameAcquired, this);
    if (r < 0)
        return r;
    acquiredMatch.reset(slot);
    // positive: ours now; 0: queued behind the present owner
    r = sd_bus_request_name(connection, serviceName.c_str(), SD_BUS_NAME_QUEUE);
    ownsName = r > 0;
    return r < 0 ? r : 0;
}

int DbusServer::OnNameAcquired(sd_bus_message* m, void* userdata, sd_bus_error*) {
    auto* self = static_cast<DbusServer*>(userdata);
    return CBoundary::Call("OnNameAcquired", [self, m] {
        const char* name = nullptr;
        const int r = sd_bus_message_read(m, "s", &name);
        if (r < 0)
            return r;
        // the bus also confirms a name that the request itself gave
        if (self->ownsName || name == nullptr || self->serviceName != name)
            return 0;
        self->ownsName = true;
        self->nameAcquired();
        return 0;
    });
}

void DbusServer::Stop() {
    Release();
}

bool DbusServer::IsConnected() const {
    return bus != nullptr && sd_bus_is_open(bus.get()) > 0;
}

int DbusServer::OpenBus(sd_bus** connection) {
    return systemBus ? sd_bus_open_system(connection) : sd_bus_open_user(connection);
}

int DbusServer::AddObject(std::shared_ptr<DbusObject> object) {
    if (object == nullptr)
        return -EINVAL;
    if (bus == nullptr)
        return -ENOTCONN;
    const int r = object->Attach(bus.get(), busThread, queue);
    if (r < 0)
        return r;
    objects.push_back(std::move(object));
    return r;
}

int DbusServer::ReportRootInManagedObjects() {
    if (bus == nullptr)
        return -ENOTCONN;
    sd_bus_slot* slot = nullptr;
    int r = sd_bus_add_object_manager(bus.get(), &slot, "/");
    if (r < 0)
        return r;
    topObjectManager.reset(slot);
    slot = nullptr;
    // runs before sd-bus's own handling of the path, which would answer with its children only
    r = sd_bus_add_object(bus.get(), &slot, objectPath.c_str(), &DbusServer::OnRootCall, this);
    if (r < 0) {
        topObjectManager.reset();
        return r;
    }
    rootCalls.reset(slot);
    return 0;
}

int DbusServer::OnRootCall(sd_bus_message* m, void* userdata, sd_bus_error* error) {
    if (!sd_bus_message_is_method_call(m, "org.freedesktop.DBus.ObjectManager", "GetManagedObjects"))
        return 0;  // everything else: sd-bus as usual
    auto* self = static_cast<DbusServer*>(userdata);
    return CBoundary::Call("GetManagedObjects", [&] { return self->ReplyManagedObjects(m, error); });
}

int DbusServer::ReplyManagedObjects(sd_bus_message* m, sd_bus_error* error) {
    sd_bus_message* created = nullptr;
    int r = sd_bus_message_new_method_return(m, &created);
    if (r < 0)
        return r;
    Message reply(created);
    r = sd_bus_message_open_container(created, 'a', "{oa{sa{sv}}}");
    if (r >= 0)
        r = sd_bus_message_open_container(created, 'e', "oa{sa{sv}}");
    if (r >= 0)
        r = sd_bus_message_append_basic(created, 'o', objectPath.c_str());
    if (r >= 0)
        r = sd_bus_message_open_container(created, 'a', "{sa{sv}}");
    // the standard interfaces, as sd-bus lists them for an object with a manager
    for (const char* standard : {"org.freedesktop.DBus.Peer", "org.freedesktop.DBus.Introspectable",
                                 "org.freedesktop.DBus.Properties", "org.freedesktop.DBus.ObjectManager"}) {
        if (r >= 0)
            r = sd_bus_message_append(created, "{sa{sv}}", standard, 0);
    }
    for (const auto& object : objects) {
        if (r < 0 || object->Path() != objectPath)
            continue;
        r = sd_bus_message_open_container(created, 'e', "sa{sv}");
        if (r >= 0)
            r = sd_bus_message_append_basic(created, 's', object->Interface().c_str());
        if (r >= 0)
            r = object->AppendProperties(created, error);
        if (r >= 0)
            r = sd_bus_message_close_container(created);
    }
    for (int level = 0; level < 3 && r >= 0; ++level)
        r = sd_bus_message_close_container(created);
    if (r < 0)
        return r;
    r = sd_bus_send(nullptr, created, nullptr);
    return r < 0 ? r : 1;
}

void DbusServer::Release() {
    acquiredMatch.reset();
    ownsName = false;
    for (auto& object : objects)
        object->Detach();
    objects.clear();
    rootCalls.reset();
    topObjectManager.reset();
    objectManager.reset();
    queue.reset();
    if (bus != nullptr) {
        sd_bus_detach_event(bus.get());
        bus.reset();
    }
}

}  // namespace DbusHelper
