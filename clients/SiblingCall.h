#pragma once
// What the three sibling-daemon clients share: method calls on a fresh user-bus connection per call, and
// property reads and writes that log their failure with the property's macro word; and the same calls
// driven by a row of a client's operation table (clients/SiblingOperation.h).

#include <systemd/sd-bus.h>

#include <cstddef>
#include <functional>
#include <string>
#include <utility>

#include "clients/SiblingOperation.h"
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

// ---------------------------------------------------------------------------------------- from a row
// Table is a client's constexpr operation table, I the index of the row (IndexOf, while compiling); the
// row's kind is checked while compiling too. `remote` picks the row's remote object where it has one.

template <const auto& Table, std::size_t I, Kind K>
constexpr const Operation& Row() {
    static_assert(Table[I].kind == K, "the operation's row is of another kind");
    return Table[I];
}

template <const auto& Table, std::size_t I, typename T>
int Get(T& value, bool remote = false) {
    const Operation& op = Row<Table, I, Kind::PropertyGet>();
    return GetProperty(op.where, op.macro, op.service, op.Path(remote), op.interface, op.member, value);
}

template <const auto& Table, std::size_t I, typename T>
int Set(const T& value, bool remote = false) {
    const Operation& op = Row<Table, I, Kind::PropertySet>();
    return SetProperty(op.where, op.macro, op.service, op.Path(remote), op.interface, op.member, value);
}

// LoggedMethod() on the row's member.
template <const auto& Table, std::size_t I>
int Call(const Writer& append = {}, const Reader& read = {}, bool remote = false) {
    const Operation& op = Row<Table, I, Kind::Method>();
    return LoggedMethod(op.where, op.macro, op.service, op.Path(remote), op.interface, op.member, append,
                        read);
}

// Call() whose reply is one value of type T; `value` is only written on success.
template <const auto& Table, std::size_t I, typename T>
int Query(T& value, const Writer& append = {}, bool remote = false) {
    T read{};
    const int r = Call<Table, I>(append, Into(read), remote);
    if (r >= 0)
        value = std::move(read);
    return r;
}

// All properties of the row's interface, "<where>: sdbus_utils::GetAllProperties failed <error>" logged.
int GetAllProperties(const Operation& op, bool remote, sdbus_utils::TypedPropertyMap& properties);

template <const auto& Table, std::size_t I>
int GetAll(sdbus_utils::TypedPropertyMap& properties, bool remote = false) {
    return GetAllProperties(Row<Table, I, Kind::GetAll>(), remote, properties);
}

}  // namespace SiblingCall
