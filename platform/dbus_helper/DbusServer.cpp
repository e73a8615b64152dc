#include "dbus_helper/DbusServer.h"

#include <cerrno>
#include <exception>

#include "logging/Log.h"
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
    int r = systemBus ? sd_bus_open_system(&connection) : sd_bus_open_user(&connection);
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
        r = sd_bus_request_name(connection, serviceName.c_str(), 0);
    if (r < 0) {
        Release();
        return r;
    }
    return 0;
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

void DbusServer::RunOnBusThread(std::function<void()> task) {
    if (queue == nullptr || std::this_thread::get_id() == busThread) {
        task();
        return;
    }
    queue->Post(std::move(task));
}

void DbusServer::Release() {
    for (auto& object : objects)
        object->Detach();
    objects.clear();
    objectManager.reset();
    queue.reset();
    if (bus != nullptr) {
        sd_bus_detach_event(bus.get());
        bus.reset();
    }
}

}  // namespace DbusHelper
