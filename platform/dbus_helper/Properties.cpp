#include <cerrno>
#include <cstring>
#include <mutex>
#include <set>
#include <unordered_map>

#include "dbus_helper/Call.h"
#include "dbus_helper/SdbusUtils.h"
#include "logging/Log.h"

namespace sdbus_utils {

namespace {

constexpr const char* kPropertiesInterface = "org.freedesktop.DBus.Properties";

using AnyReader = int (*)(sd_bus_message*, std::any&);

template <typename T>
int ReadAny(sd_bus_message* m, std::any& out) {
    T value{};
    const int r = Codec<T>::Read(m, value);
    if (r < 0)
        return r;
    out = std::move(value);
    return 0;
}

template <typename T>
void AddScalarAndArray(std::unordered_map<std::string, AnyReader>& readers, const std::string& signature) {
    readers.emplace(signature, &ReadAny<T>);
    readers.emplace("a" + signature, &ReadAny<std::vector<T>>);
}

// "ao" and "ag" as std::vector<std::string>. The string-array codec enters its array as "as", which
// sd-bus refuses for the other two (even empty): each is read with its own element type.
template <char Element>
int ReadTextArray(sd_bus_message* m, std::any& out) {
    const char element[] = {Element, '\0'};
    int r = sd_bus_message_enter_container(m, 'a', element);
    if (r <= 0)
        return r < 0 ? r : -ENXIO;
    std::vector<std::string> items;
    const char* text = nullptr;
    while ((r = sd_bus_message_read_basic(m, Element, &text)) > 0)
        items.emplace_back(text != nullptr ? text : "");
    if (r < 0)
        return r;
    r = sd_bus_message_exit_container(m);
    if (r < 0)
        return r;
    out = std::move(items);
    return 0;
}

template <char Element>
void AddTextScalarAndArray(std::unordered_map<std::string, AnyReader>& readers) {
    readers.emplace(std::string(1, Element), &ReadAny<std::string>);
    readers.emplace(std::string("a") + Element, &ReadTextArray<Element>);
}

// Once per property name and type for the process: a peer that keeps sending a property of a type this
// daemon does not read is told about once, not on every change.
void LogSkippedOnce(const char* key, const std::string& signature) {
    static std::mutex mutex;
    static std::set<std::string> logged;
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (!logged.insert(std::string(key) + '\n' + signature).second)
            return;
    }
    Logging::Log(LOG_WARNING, "Skipping property %s of unexpected type %s", key, signature.c_str());
}

const std::unordered_map<std::string, AnyReader>& Readers() {
    static const std::unordered_map<std::string, AnyReader> readers = [] {
        std::unordered_map<std::string, AnyReader> r;
        AddScalarAndArray<std::string>(r, "s");
        AddTextScalarAndArray<'o'>(r);
        AddTextScalarAndArray<'g'>(r);
        AddScalarAndArray<bool>(r, "b");
        AddScalarAndArray<uint8_t>(r, "y");
        AddScalarAndArray<int16_t>(r, "n");
        AddScalarAndArray<uint16_t>(r, "q");
        AddScalarAndArray<int32_t>(r, "i");
        AddScalarAndArray<uint32_t>(r, "u");
        AddScalarAndArray<int64_t>(r, "x");
        AddScalarAndArray<uint64_t>(r, "t");
        AddScalarAndArray<double>(r, "d");
        r.emplace("a(siib)", &ReadAny<std::vector<AccessPointTuple>>);
        return r;
    }();
    return readers;
}

// Calls `each(key, signature, value)` for every supported entry of the a{sv} at the read position.
template <typename Each>
int ForEachProperty(sd_bus_message* message, Each&& each) {
    if (message == nullptr)
        return -EINVAL;
    int r = sd_bus_message_enter_container(message, 'a', "{sv}");
    if (r < 0)
        return r;
    if (r == 0)
        return -ENXIO;
    const auto& readers = Readers();
    while ((r = sd_bus_message_enter_container(message, 'e', "sv")) > 0) {
        const char* key = nullptr;
        r = sd_bus_message_read_basic(message, 's', &key);
        if (r < 0)
            return r;
        char type = 0;
        const char* contents = nullptr;
        r = sd_bus_message_peek_type(message, &type, &contents);
        if (r < 0)
            return r;
        if (r == 0 || type != 'v' || contents == nullptr)
            return -EBADMSG;
        const auto reader = readers.find(contents);
        if (reader == readers.end()) {
            LogSkippedOnce(key != nullptr ? key : "", contents);
            r = sd_bus_message_skip(message, "v");
            if (r < 0)
                return r;
        } else {
            const std::string signature = contents;  // contents points into the message
            r = sd_bus_message_enter_container(message, 'v', signature.c_str());
            if (r < 0)
                return r;
            std::any value;
            r = reader->second(message, value);
            if (r < 0)
                return r;
            r = sd_bus_message_exit_container(message);
            if (r < 0)
                return r;
            each(std::string(key != nullptr ? key : ""), signature, std::move(value));
        }
        r = sd_bus_message_exit_container(message);
        if (r < 0)
            return r;
    }
    if (r < 0)
        return r;
    r = sd_bus_message_exit_container(message);
    return r < 0 ? r : 0;
}

std::string TextOf(const char* name, const char* message, int r) {
    if (message != nullptr && message[0] != '\0')
        return message;
    if (name != nullptr && name[0] != '\0')
        return name;
    return std::strerror(r < 0 ? -r : r);
}

// One call on org.freedesktop.DBus.Properties of `destination`: 0 or a negative errno. A failed open or
// call writes `error`; so does a failed build, after `buildPrefix` when there is one (else as a failed
// call); a failed read leaves `error` to the reader.
int PropertiesCall(sd_bus* bus, const std::string& destination, const std::string& path, const char* member,
                   const DbusHelper::Writer& append, const DbusHelper::Reader& read, const char* buildPrefix,
                   std::string& error) {
    DbusHelper::CallFailure failure;
    const int r = DbusHelper::CallMethod(bus, DbusHelper::BusKind::User, destination, path,
                                         kPropertiesInterface, member, append, read, failure);
    if (r >= 0)
        return 0;
    using Step = DbusHelper::CallFailure::Step;
    if (failure.step == Step::Open)
        error = "cannot connect to the user bus: " + TextOf(nullptr, nullptr, r);
    else if (failure.step == Step::Build && buildPrefix != nullptr)
        error = buildPrefix + TextOf(nullptr, nullptr, r);
    else if (failure.step != Step::Read)
        error = TextOf(failure.name.c_str(), failure.message ? failure.message->c_str() : nullptr, r);
    return r;
}

}  // namespace

std::string ErrorText(const sd_bus_error* error, int r) {
    return error != nullptr ? TextOf(error->name, error->message, r) : TextOf(nullptr, nullptr, r);
}

// Both parsers collect first and merge on success: a message that breaks half way changes nothing.
int ParsePropertiesWithType(sd_bus_message* message, TypedPropertyMap& properties) {
    TypedPropertyMap parsed;
    const int r =
        ForEachProperty(message, [&parsed](std::string key, const std::string& signature, std::any value) {
            parsed.insert_or_assign(std::move(key), std::make_pair(signature, std::move(value)));
        });
    if (r < 0)
        return r;
    for (auto& entry : parsed)
        properties.insert_or_assign(entry.first, std::move(entry.second));
    return 0;
}

int ParseProperties(sd_bus_message* message, PropertyMap& properties) {
    PropertyMap parsed;
    const int r = ForEachProperty(message, [&parsed](std::string key, const std::string&, std::any value) {
        parsed.insert_or_assign(std::move(key), std::move(value));
    });
    if (r < 0)
        return r;
    for (auto& entry : parsed)
        properties.insert_or_assign(entry.first, std::move(entry.second));
    return 0;
}

namespace detail {

int GetPropertyCall(sd_bus* bus, const std::string& destination, const std::string& path,
                    const std::string& interface, const std::string& member, const std::string& signature,
                    const ReplyReader& read, std::string& error) {
    return PropertiesCall(
        bus, destination, path, "Get",
        [&](sd_bus_message* request) {
            return sd_bus_message_append(request, "ss", interface.c_str(), member.c_str());
        },
        [&](sd_bus_message* reply) {
            int rr = sd_bus_message_enter_container(reply, 'v', signature.c_str());
            if (rr <= 0) {
                char type = 0;
                const char* contents = nullptr;
                sd_bus_message_peek_type(reply, &type, &contents);
                error = "property " + member + " has type " + (contents != nullptr ? contents : "?") +
                        ", expected " + signature;
                return rr < 0 ? rr : -ENXIO;
            }
            rr = read(reply);
            if (rr < 0)
                error = "cannot read property " + member + ": " + ErrorText(nullptr, rr);
            return rr;
        },
        nullptr, error);
}

int SetPropertyCall(sd_bus* bus, const std::string& destination, const std::string& path,
                    const std::string& interface, const std::string& member, const std::string& signature,
                    const ValueWriter& write, std::string& error) {
    return PropertiesCall(
        bus, destination, path, "Set",
        [&](sd_bus_message* request) {
            int rr = sd_bus_message_append(request, "ss", interface.c_str(), member.c_str());
            if (rr >= 0)
                rr = sd_bus_message_open_container(request, 'v', signature.c_str());
            if (rr >= 0)
                rr = write(request);
            if (rr >= 0)
                rr = sd_bus_message_close_container(request);
            return rr;
        },
        {}, "cannot build the request: ", error);
}

}  // namespace detail

int GetAllProperties(sd_bus* bus, const std::string& destination, const std::string& path,
                     const std::string& interface, TypedPropertyMap& properties, std::string& error) {
    return PropertiesCall(
        bus, destination, path, "GetAll",
        [&](sd_bus_message* request) { return sd_bus_message_append(request, "s", interface.c_str()); },
        [&](sd_bus_message* reply) {
            const int rr = ParsePropertiesWithType(reply, properties);
            if (rr < 0)
                error = "cannot parse the properties of " + path + ": " + ErrorText(nullptr, rr);
            return rr;
        },
        nullptr, error);
}

int GetAllProperties(sd_bus* bus, const std::string& destination, const std::string& path,
                     const std::string& interface, TypedPropertyMap& properties) {
    std::string ignored;
    return GetAllProperties(bus, destination, path, interface, properties, ignored);
}

}  // namespace sdbus_utils
