#pragma once
// Property plumbing over sd-bus: parsing a{sv} dictionaries into typed maps, and Get/Set/GetAll calls on
// org.freedesktop.DBus.Properties of another service.
//
// Value types understood by the typed calls and by the parsers (D-Bus signature -> C++ type):
//   s, o, g -> std::string      b -> bool           y -> uint8_t        n -> int16_t
//   q -> uint16_t               i -> int32_t        u -> uint32_t       x -> int64_t
//   t -> uint64_t               d -> double
//   a<T> of any of those        -> std::vector<T>   (ab is std::vector<bool>)
//   (...) of the above          -> std::tuple<...>  (GetProperty/SetProperty only, any nesting)
//   a(siib)                     -> std::vector<std::tuple<std::string, int32_t, int32_t, bool>>
// The parsers store other value types (dictionaries, nested variants, unix fds, other structs) nowhere:
// such an entry is skipped and its key is absent from the map, so one unexpected property of a peer never
// costs the others. A message that is malformed for its own signature is an error.

#include <systemd/sd-bus.h>

#include <any>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

namespace sdbus_utils {

// property name -> (D-Bus signature of the value, value)
using TypedPropertyMap = std::map<std::string, std::pair<std::string, std::any>>;
// property name -> value, for callers that know their types
using PropertyMap = std::map<std::string, std::any>;

using AccessPointTuple = std::tuple<std::string, int32_t, int32_t, bool>;

// Parses the a{sv} at the read position of `message` into `properties` (entries are added or replaced,
// existing other entries stay). Leaves the message after the dictionary. 0, or a negative errno when the
// message does not hold an a{sv} there or is malformed; `properties` is then unchanged.
int ParsePropertiesWithType(sd_bus_message* message, TypedPropertyMap& properties);
// As ParsePropertiesWithType, without the signatures.
int ParseProperties(sd_bus_message* message, PropertyMap& properties);

// ------------------------------------------------------------------------------------------------------
// Codec: signature, read and append of one value of a C++ type.

template <typename T, typename Enable = void>
struct Codec;

namespace detail {
template <typename T, char Type>
struct BasicCodec {
    static std::string Signature() { return std::string(1, Type); }
    static int Read(sd_bus_message* m, T& value) {
        T v{};
        const int r = sd_bus_message_read_basic(m, Type, &v);
        if (r <= 0)
            return r < 0 ? r : -ENXIO;
        value = v;
        return 0;
    }
    static int Append(sd_bus_message* m, const T& value) {
        return sd_bus_message_append_basic(m, Type, &value);
    }
};
}  // namespace detail

template <>
struct Codec<uint8_t> : detail::BasicCodec<uint8_t, 'y'> {};
template <>
struct Codec<int16_t> : detail::BasicCodec<int16_t, 'n'> {};
template <>
struct Codec<uint16_t> : detail::BasicCodec<uint16_t, 'q'> {};
template <>
struct Codec<int32_t> : detail::BasicCodec<int32_t, 'i'> {};
template <>
struct Codec<uint32_t> : detail::BasicCodec<uint32_t, 'u'> {};
template <>
struct Codec<int64_t> : detail::BasicCodec<int64_t, 'x'> {};
template <>
struct Codec<uint64_t> : detail::BasicCodec<uint64_t, 't'> {};
template <>
struct Codec<double> : detail::BasicCodec<double, 'd'> {};

template <>
struct Codec<bool> {
    static std::string Signature() { return "b"; }
    static int Read(sd_bus_message* m, bool& value) {
        int v = 0;  // sd-bus carries booleans as int
        const int r = sd_bus_message_read_basic(m, 'b', &v);
        if (r <= 0)
            return r < 0 ? r : -ENXIO;
        value = v != 0;
        return 0;
    }
    static int Append(sd_bus_message* m, const bool& value) {
        const int v = value ? 1 : 0;
        return sd_bus_message_append_basic(m, 'b', &v);
    }
};

template <>
struct Codec<std::string> {
    static std::string Signature() { return "s"; }
    static int Read(sd_bus_message* m, std::string& value) {
        // s, o and g all read as text
        char type = 0;
        int r = sd_bus_message_peek_type(m, &type, nullptr);
        if (r <= 0)
            return r < 0 ? r : -ENXIO;
        if (type != 's' && type != 'o' && type != 'g')
            return -ENXIO;
        const char* text = nullptr;
        r = sd_bus_message_read_basic(m, type, &text);
        if (r <= 0)
            return r < 0 ? r : -ENXIO;
        value = text != nullptr ? text : "";
        return 0;
    }
    static int Append(sd_bus_message* m, const std::string& value) {
        return sd_bus_message_append_basic(m, 's', value.c_str());
    }
};

template <typename T>
struct Codec<std::vector<T>> {
    static std::string Signature() { return "a" + Codec<T>::Signature(); }
    static int Read(sd_bus_message* m, std::vector<T>& value) {
        const std::string element = Codec<T>::Signature();
        int r = sd_bus_message_enter_container(m, 'a', element.c_str());
        if (r <= 0)
            return r < 0 ? r : -ENXIO;
        std::vector<T> items;
        while ((r = sd_bus_message_at_end(m, 0)) == 0) {
            T item{};
            r = Codec<T>::Read(m, item);
            if (r < 0)
                return r;
            items.push_back(std::move(item));
        }
        if (r < 0)
            return r;
        r = sd_bus_message_exit_container(m);
        if (r < 0)
            return r;
        value = std::move(items);
        return 0;
    }
    static int Append(sd_bus_message* m, const std::vector<T>& value) {
        const std::string element = Codec<T>::Signature();
        int r = sd_bus_message_open_container(m, 'a', element.c_str());
        if (r < 0)
            return r;
        for (const auto& item : value) {
            r = Codec<T>::Append(m, item);
            if (r < 0)
                return r;
        }
        return sd_bus_message_close_container(m);
    }
};

// std::vector<bool> has no addressable elements; it gets its own codec
template <>
struct Codec<std::vector<bool>> {
    static std::string Signature() { return "ab"; }
    static int Read(sd_bus_message* m, std::vector<bool>& value) {
        int r = sd_bus_message_enter_container(m, 'a', "b");
        if (r <= 0)
            return r < 0 ? r : -ENXIO;
        std::vector<bool> items;
        while ((r = sd_bus_message_at_end(m, 0)) == 0) {
            bool item = false;
            r = Codec<bool>::Read(m, item);
            if (r < 0)
                return r;
            items.push_back(item);
        }
        if (r < 0)
            return r;
        r = sd_bus_message_exit_container(m);
        if (r < 0)
            return r;
        value = std::move(items);
        return 0;
    }
    static int Append(sd_bus_message* m, const std::vector<bool>& value) {
        int r = sd_bus_message_open_container(m, 'a', "b");
        if (r < 0)
            return r;
        for (const bool item : value) {
            r = Codec<bool>::Append(m, item);
            if (r < 0)
                return r;
        }
        return sd_bus_message_close_container(m);
    }
};

template <typename... T>
struct Codec<std::tuple<T...>> {
    static std::string Inner() { return (std::string() + ... + Codec<T>::Signature()); }
    static std::string Signature() { return "(" + Inner() + ")"; }
    static int Read(sd_bus_message* m, std::tuple<T...>& value) {
        const std::string inner = Inner();
        int r = sd_bus_message_enter_container(m, 'r', inner.c_str());
        if (r <= 0)
            return r < 0 ? r : -ENXIO;
        std::tuple<T...> fields;
        r = std::apply(
            [m](auto&... field) {
                int result = 0;
                ((result = result < 0 ? result : Codec<std::decay_t<decltype(field)>>::Read(m, field)), ...);
                return result;
            },
            fields);
        if (r < 0)
            return r;
        r = sd_bus_message_exit_container(m);
        if (r < 0)
            return r;
        value = std::move(fields);
        return 0;
    }
    static int Append(sd_bus_message* m, const std::tuple<T...>& value) {
        const std::string inner = Inner();
        int r = sd_bus_message_open_container(m, 'r', inner.c_str());
        if (r < 0)
            return r;
        r = std::apply(
            [m](const auto&... field) {
                int result = 0;
                ((result = result < 0 ? result : Codec<std::decay_t<decltype(field)>>::Append(m, field)),
                 ...);
                return result;
            },
            value);
        if (r < 0)
            return r;
        return sd_bus_message_close_container(m);
    }
};

// ------------------------------------------------------------------------------------------------------
// Calls on org.freedesktop.DBus.Properties of `destination`. With bus == nullptr a fresh user-bus
// connection is opened for the call and closed with sd_bus_flush_close_unref; a given bus must belong to
// the calling thread. Results: 0, or a negative errno with `error` set to a readable text (the peer's
// D-Bus error message when there is one). `value` is only written on success.

namespace detail {
using ReplyReader = std::function<int(sd_bus_message*)>;
using ValueWriter = std::function<int(sd_bus_message*)>;
int GetPropertyCall(sd_bus* bus, const std::string& destination, const std::string& path,
                    const std::string& interface, const std::string& member, const std::string& signature,
                    const ReplyReader& read, std::string& error);
int SetPropertyCall(sd_bus* bus, const std::string& destination, const std::string& path,
                    const std::string& interface, const std::string& member, const std::string& signature,
                    const ValueWriter& write, std::string& error);
}  // namespace detail

template <typename T>
int GetProperty(sd_bus* bus, const std::string& destination, const std::string& path,
                const std::string& interface, const std::string& member, T& value, std::string& error) {
    T read{};
    const int r = detail::GetPropertyCall(
        bus, destination, path, interface, member, Codec<T>::Signature(),
        [&read](sd_bus_message* m) { return Codec<T>::Read(m, read); }, error);
    if (r >= 0)
        value = std::move(read);
    return r;
}

template <typename T>
int SetProperty(sd_bus* bus, const std::string& destination, const std::string& path,
                const std::string& interface, const std::string& member, const T& value, std::string& error) {
    return detail::SetPropertyCall(
        bus, destination, path, interface, member, Codec<T>::Signature(),
        [&value](sd_bus_message* m) { return Codec<T>::Append(m, value); }, error);
}

// All properties of `interface` at `path` into `properties` (entries added or replaced), parsed as
// ParsePropertiesWithType does.
int GetAllProperties(sd_bus* bus, const std::string& destination, const std::string& path,
                     const std::string& interface, TypedPropertyMap& properties, std::string& error);
int GetAllProperties(sd_bus* bus, const std::string& destination, const std::string& path,
                     const std::string& interface, TypedPropertyMap& properties);

// The text of a failed call: the D-Bus error's message when set, otherwise strerror(-r).
std::string ErrorText(const sd_bus_error* error, int r);

}  // namespace sdbus_utils
