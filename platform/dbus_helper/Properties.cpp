#include <cerrno>
#include <cstring>
#include <unordered_map>

#include "dbus_helper/SdbusUtils.h"

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

const std::unordered_map<std::string, AnyReader>& Readers() {
    static const std::unordered_map<std::string, AnyReader> readers = [] {
        std::unordered_map<std::string, AnyReader> r;
        AddScalarAndArray<std::string>(r, "s");
        AddScalarAndArray<std::string>(r, "o");
        AddScalarAndArray<std::string>(r, "g");
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

// Opens a fresh user-bus connection when the caller gave none; closes it on destruction.
class CallBus {
  public:
    explicit CallBus(sd_bus* given) : bus_(given) {
        if (bus_ == nullptr) {
            result_ = sd_bus_open_user(&owned_);
            bus_ = owned_;
        }
    }
    ~CallBus() {
        if (owned_ != nullptr)
            sd_bus_flush_close_unref(owned_);
    }
    CallBus(const CallBus&) = delete;
    CallBus& operator=(const CallBus&) = delete;
    int Result() const { return result_; }
    sd_bus* Get() const { return bus_; }

  private:
    sd_bus* bus_ = nullptr;
    sd_bus* owned_ = nullptr;
    int result_ = 0;
};

}  // namespace

std::string ErrorText(const sd_bus_error* error, int r) {
    if (error != nullptr && error->message != nullptr && error->message[0] != '\0')
        return error->message;
    if (error != nullptr && error->name != nullptr && error->name[0] != '\0')
        return error->name;
    return std::strerror(r < 0 ? -r : r);
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
    CallBus call(bus);
    if (call.Result() < 0) {
        error = "cannot connect to the user bus: " + ErrorText(nullptr, call.Result());
        return call.Result();
    }
    sd_bus_error e = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    int r = sd_bus_call_method(call.Get(), destination.c_str(), path.c_str(), kPropertiesInterface, "Get", &e,
                               &reply, "ss", interface.c_str(), member.c_str());
    if (r < 0) {
        error = ErrorText(&e, r);
    } else {
        r = sd_bus_message_enter_container(reply, 'v', signature.c_str());
        if (r <= 0) {
            char type = 0;
            const char* contents = nullptr;
            sd_bus_message_peek_type(reply, &type, &contents);
            error = "property " + member + " has type " + (contents != nullptr ? contents : "?") +
                    ", expected " + signature;
            r = r < 0 ? r : -ENXIO;
        } else {
            r = read(reply);
            if (r < 0)
                error = "cannot read property " + member + ": " + ErrorText(nullptr, r);
            else
                r = 0;
        }
    }
    sd_bus_message_unref(reply);
    sd_bus_error_free(&e);
    return r;
}

int SetPropertyCall(sd_bus* bus, const std::string& destination, const std::string& path,
                    const std::string& interface, const std::string& member, const std::string& signature,
                    const ValueWriter& write, std::string& error) {
    CallBus call(bus);
    if (call.Result() < 0) {
        error = "cannot connect to the user bus: " + ErrorText(nullptr, call.Result());
        return call.Result();
    }
    sd_bus_message* request = nullptr;
    sd_bus_message* reply = nullptr;
    sd_bus_error e = SD_BUS_ERROR_NULL;
    int r = sd_bus_message_new_method_call(call.Get(), &request, destination.c_str(), path.c_str(),
                                           kPropertiesInterface, "Set");
    if (r >= 0)
        r = sd_bus_message_append(request, "ss", interface.c_str(), member.c_str());
    if (r >= 0)
        r = sd_bus_message_open_container(request, 'v', signature.c_str());
    if (r >= 0)
        r = write(request);
    if (r >= 0)
        r = sd_bus_message_close_container(request);
    if (r < 0) {
        error = "cannot build the request: " + ErrorText(nullptr, r);
    } else {
        r = sd_bus_call(call.Get(), request, 0, &e, &reply);
        if (r < 0)
            error = ErrorText(&e, r);
        else
            r = 0;
    }
    sd_bus_message_unref(reply);
    sd_bus_message_unref(request);
    sd_bus_error_free(&e);
    return r;
}

}  // namespace detail

int GetAllProperties(sd_bus* bus, const std::string& destination, const std::string& path,
                     const std::string& interface, TypedPropertyMap& properties, std::string& error) {
    CallBus call(bus);
    if (call.Result() < 0) {
        error = "cannot connect to the user bus: " + ErrorText(nullptr, call.Result());
        return call.Result();
    }
    sd_bus_error e = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    int r = sd_bus_call_method(call.Get(), destination.c_str(), path.c_str(), kPropertiesInterface, "GetAll",
                               &e, &reply, "s", interface.c_str());
    if (r < 0) {
        error = ErrorText(&e, r);
    } else {
        r = ParsePropertiesWithType(reply, properties);
        if (r < 0)
            error = "cannot parse the properties of " + path + ": " + ErrorText(nullptr, r);
    }
    sd_bus_message_unref(reply);
    sd_bus_error_free(&e);
    return r;
}

int GetAllProperties(sd_bus* bus, const std::string& destination, const std::string& path,
                     const std::string& interface, TypedPropertyMap& properties) {
    std::string ignored;
    return GetAllProperties(bus, destination, path, interface, properties, ignored);
}

}  // namespace sdbus_utils
