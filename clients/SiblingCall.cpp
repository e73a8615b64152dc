#include "SiblingCall.h"

namespace SiblingCall {

int Method(const std::string& destination, const std::string& path, const std::string& interface,
           const std::string& member, const Writer& append, const Reader& read, Failure& failure) {
    DbusHelper::CallFailure callFailure;
    const int r = DbusHelper::CallMethod(nullptr, DbusHelper::BusKind::User, destination, path, interface,
                                         member, append, read, callFailure);
    switch (callFailure.step) {
        case DbusHelper::CallFailure::Step::None:
            failure = Failure::None;
            break;
        case DbusHelper::CallFailure::Step::Open:
            failure = Failure::Open;
            break;
        case DbusHelper::CallFailure::Step::Build:
        case DbusHelper::CallFailure::Step::Call:
        case DbusHelper::CallFailure::Step::Read:
            failure = Failure::Call;
            break;
    }
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
