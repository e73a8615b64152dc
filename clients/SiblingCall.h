#pragma once
// What the three sibling-daemon clients share: method calls on a fresh user-bus connection per call, and
// property reads and writes that log their failure with the property's macro word.

#include <systemd/sd-bus.h>

#include <functional>
#include <string>

#include "dbus_helper/Call.h"
#include "dbus_helper/SdbusUtils.h"
#include "logging/Log.h"

namespace SiblingCall {

using Writer = DbusHelper::Writer;
using Reader = DbusHelper::Reader;

enum class Failure { None, Open, Call };

// Calls destination.path.interface.member on a fresh user-bus connection (closed with
// sd_bus_flush_close_unref). `append` adds the arguments, `read` reads the reply (both may be empty).
// Returns the call's result (or the open's, or the reply read's, when those fail); `failure` tells which.
int Method(const std::string& destination, const std::string& path, const std::string& interface,
           const std::string& member, const Writer& append, const Reader& read, Failure& failure);

// Method() with the network and power daemons' failure logs:
// "<where>: sd_bus_open_user failed" / "<where>: sd_bus_call_method <macro> failed".
int LoggedMethod(const char* where, const char* macro, const std::string& destination,
                 const std::string& path, const std::string& interface, const std::string& member,
                 const Writer& append = {}, const Reader& read = {});

template <typename T>
int GetProperty(const char* where, const char* macro, const std::string& destination, const std::string& path,
                const std::string& interface, const std::string& member, T& value) {
    std::string error;
    const int r = sdbus_utils::GetProperty(nullptr, destination, path, interface, member, value, error);
    if (r < 0)
        Logging::Log(LOG_ERR, "%s: sdbus_utils::GetProperty %s failed %s", where, macro, error.c_str());
    return r;
}

template <typename T>
int SetProperty(const char* where, const char* macro, const std::string& destination, const std::string& path,
                const std::string& interface, const std::string& member, const T& value) {
    std::string error;
    const int r = sdbus_utils::SetProperty(nullptr, destination, path, interface, member, value, error);
    if (r < 0)
        Logging::Log(LOG_ERR, "%s: sdbus_utils::SetProperty %s failed %s", where, macro, error.c_str());
    return r;
}

// Reads one value of type T from a reply.
template <typename T>
Reader Into(T& value) {
    return [&value](sd_bus_message* m) { return sdbus_utils::Codec<T>::Read(m, value); };
}

// Appends values in order.
template <typename... T>
Writer Args(const T&... values) {
    return [&values...](sd_bus_message* m) {
        int r = 0;
        ((r = r < 0 ? r : sdbus_utils::Codec<T>::Append(m, values)), ...);
        return r;
    };
}

}  // namespace SiblingCall
