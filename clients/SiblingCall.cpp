#include "SiblingCall.h"

namespace SiblingCall {

int Method(const std::string& destination, const std::string& path, const std::string& interface,
           const std::string& member, const Writer& append, const Reader& read, Failure& failure) {
    failure = Failure::None;
    sd_bus* bus = nullptr;
    int r = sd_bus_open_user(&bus);
    if (r < 0) {
        failure = Failure::Open;
        return r;
    }
    sd_bus_message* request = nullptr;
    sd_bus_message* reply = nullptr;
    sd_bus_error error = SD_BUS_ERROR_NULL;
    r = sd_bus_message_new_method_call(bus, &request, destination.c_str(), path.c_str(), interface.c_str(),
                                       member.c_str());
    if (r >= 0 && append)
        r = append(request);
    if (r >= 0)
        r = sd_bus_call(bus, request, 0, &error, &reply);
    if (r >= 0 && read) {
        const int rr = read(reply);
        if (rr < 0)
            r = rr;
    }
    if (r < 0)
        failure = Failure::Call;
    sd_bus_error_free(&error);
    sd_bus_message_unref(reply);
    sd_bus_message_unref(request);
    sd_bus_flush_close_unref(bus);
    return r;
}

int LoggedMethod(const char* where, const char* macro, const std::string& destination,
                 const std::string& path, const std::string& interface, const std::string& member,
                 const Writer& append, const Reader& read) {
    Failure failure = Failure::None;
    const int r = Method(destination, path, interface, member, append, read, failure);
    if (failure == Failure::Open)
        Logging::Log(LOG_ERR, "%s: sd_bus_open_user failed", where);
    else if (failure == Failure::Call)
        Logging::Log(LOG_ERR, "%s: sd_bus_call_method %s failed", where, macro);
    return r;
}

int GetAllProperties(const Operation& op, bool remote, sdbus_utils::TypedPropertyMap& properties) {
    std::string error;
    const int r =
        sdbus_utils::GetAllProperties(nullptr, op.service, op.Path(remote), op.interface, properties, error);
    if (r < 0)
        Logging::Log(LOG_ERR, "%s: sdbus_utils::GetAllProperties failed %s", op.where, error.c_str());
    return r;
}

}  // namespace SiblingCall
