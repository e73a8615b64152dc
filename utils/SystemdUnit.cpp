#include "utils/SystemdUnit.h"

#include <systemd/sd-bus.h>

#include <cstring>

#include "dbus_helper/Call.h"
#include "logging/Log.h"

namespace Utils {

namespace {

constexpr const char* kSystemd = "org.freedesktop.systemd1";
constexpr const char* kManagerPath = "/org/freedesktop/systemd1";
constexpr const char* kManagerInterface = "org.freedesktop.systemd1.Manager";
constexpr const char* kUnitInterface = "org.freedesktop.systemd1.Unit";

// One method call with a single "s" argument and a single "o" result, on a connection of its own.
struct CallResult {
    int callStatus = 0;  // the call, or the open that preceded it
    int readStatus = 0;  // sd_bus_message_read of the reply; 0 when there was no reply
    std::string errorText;
    std::string objectPath;
};

CallResult CallReturningPath(const char* path, const char* interface, const char* member,
                             const char* argument) {
    CallResult result;
    DbusHelper::CallFailure failure;
    result.callStatus = DbusHelper::CallMethod(
        nullptr, DbusHelper::BusKind::System, kSystemd, path, interface, member,
        [argument](sd_bus_message* request) { return sd_bus_message_append(request, "s", argument); },
        [&result](sd_bus_message* reply) {
            const char* object = nullptr;
            result.readStatus = sd_bus_message_read(reply, "o", &object);
            if (result.readStatus > 0)
                result.objectPath = object;
            return 0;  // an unreadable reply is told apart by readStatus, not by the call's result
        },
        failure);
    if (result.callStatus < 0)
        result.errorText = failure.message ? *failure.message : std::strerror(-result.callStatus);
    return result;
}

}  // namespace

bool RestartServiceUnit(const std::string& unitName) {
    const CallResult load = CallReturningPath(kManagerPath, kManagerInterface, "LoadUnit", unitName.c_str());
    if (load.callStatus < 0) {
        Logging::Log(LOG_ERR, "[Utils] Failed to load unit name of '%s' service. %s (r = %d)",
                     unitName.c_str(), load.errorText.c_str(), load.callStatus);
    }
    if (load.readStatus <= 0) {
        // a failed call leaves no reply to read either; without a unit path there is nothing to restart
        Logging::Log(LOG_ERR, "%s: Failed to read response", "LoadServiceUnit");
        return false;
    }
    Logging::Log(LOG_INFO, "[Utils] Got unit name '%s' for the service '%s'", load.objectPath.c_str(),
                 unitName.c_str());

    const CallResult restart =
        CallReturningPath(load.objectPath.c_str(), kUnitInterface, "Restart", "replace");
    if (restart.callStatus < 0) {
        Logging::Log(LOG_ERR, "[Utils] Failed to start '%s' unit. %s (r = %d)", load.objectPath.c_str(),
                     restart.errorText.c_str(), restart.callStatus);
    }
    if (restart.readStatus <= 0) {
        Logging::Log(LOG_ERR, "%s: Failed to read response", "RestartServiceUnit");
        return false;
    }
    Logging::Log(LOG_INFO, "[Utils] Started '%s' unit with job id:%s", load.objectPath.c_str(),
                 restart.objectPath.c_str());
    return true;
}

}  // namespace Utils
