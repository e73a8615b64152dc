#include "dbus_helper/DbusServer.h"

#include <cerrno>
#include <exception>

#include "logging/Log.h"
#include "loop/Queue.h"

namespace DbusHelper {

DbusServer::DbusServer(std::string name, std::string rootPath, std::string connectionDescription,
                       bool onSystemBus, bool withObjectManager, sd_event* eventLoop)
    : serviceName_(std::move(name)),
      objectPath_(std::move(rootPath)),
      description_(std::move(connectionDescription)),
      systemBus_(onSystemBus),
      addObjectManager_(withObjectManager),
      loop_(eventLoop) {}

DbusServer::~DbusServer() {
    Release();
}

int DbusServer::Start() {
    if (bus_ != nullptr)
        return -EALREADY;
    sd_bus* connection = nullptr;
    int r = systemBus_ ? sd_bus_open_system(&connection) : sd_bus_open_user(&connection);
    if (r < 0)
        return r;
    bus_.reset(connection);
    busThread_ = std::this_thread::get_id();

    if (!description_.empty())
        sd_bus_set_description(connection, description_.c_str());  // cosmetic only
    r = sd_bus_attach_event(connection, loop_, SD_EVENT_PRIORITY_NORMAL);
    if (r >= 0) {
        try {
            queue_ = std::make_shared<Loop::Queue>(sd_bus_get_event(connection));
        } catch (const std::exception& e) {
            Logging::Log(LOG_ERR, "%s: cannot hand work to the bus thread: %s", serviceName_.c_str(),
                         e.what());
            r = -ENOMEM;
        }
    }
    if (r >= 0 && addObjectManager_) {
        sd_bus_slot* slot = nullptr;
        r = sd_bus_add_object_manager(connection, &slot, objectPath_.c_str());
        objectManager_.reset(slot);
    }
    // last: once the name is ours, callers may arrive
    if (r >= 0)
        r = sd_bus_request_name(connection, serviceName_.c_str(), 0);
    if (r < 0) {
        Release();
        return r;
    }
    return 0;
}

int DbusServer::AddObject(std::shared_ptr<DbusObject> object) {
    if (object == nullptr)
        return -EINVAL;
    if (bus_ == nullptr)
        return -ENOTCONN;
    const int r = object->Attach(bus_.get(), busThread_, queue_);
    if (r < 0)
        return r;
    objects_.push_back(std::move(object));
    return r;
}

void DbusServer::RunOnBusThread(std::function<void()> task) {
    if (queue_ == nullptr || std::this_thread::get_id() == busThread_) {
        task();
        return;
    }
    queue_->Post(std::move(task));
}

void DbusServer::Release() {
    for (auto& object : objects_)
        object->Detach();
    objects_.clear();
    objectManager_.reset();
    queue_.reset();
    if (bus_ != nullptr) {
        sd_bus_detach_event(bus_.get());
        bus_.reset();
    }
}

}  // namespace DbusHelper
