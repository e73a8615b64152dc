#include "Wire.h"

#include <cerrno>
#include <cstring>

namespace tinyb::detail {

std::string ErrnoText(int r) {
    return std::strerror(r < 0 ? -r : r);
}

namespace {

template <typename T>
int ReadBasic(sd_bus_message* m, char type, Value& out) {
    T v{};
    const int r = sd_bus_message_read_basic(m, type, &v);
    if (r >= 0)
        out = v;
    return r;
}

int ReadStrings(sd_bus_message* m, const char* element, Value& out) {
    std::vector<std::string> list;
    int r = sd_bus_message_enter_container(m, SD_BUS_TYPE_ARRAY, element);
    if (r < 0)
        return r;
    const char* s = nullptr;
    while ((r = sd_bus_message_read_basic(m, element[0], &s)) > 0)
        list.emplace_back(s);
    if (r < 0)
        return r;
    r = sd_bus_message_exit_container(m);
    if (r >= 0)
        out = std::move(list);
    return r;
}

int ReadBytes(sd_bus_message* m, Bytes& out) {
    const void* data = nullptr;
    size_t size = 0;
    const int r = sd_bus_message_read_array(m, SD_BUS_TYPE_BYTE, &data, &size);
    if (r < 0)
        return r;
    const auto* p = static_cast<const uint8_t*>(data);
    out.assign(p, p + size);
    return r;
}

// a{qv}, each value an ay; entries of another type are skipped
int ReadManufacturerData(sd_bus_message* m, Value& out) {
    ManufacturerData data;
    int r = sd_bus_message_enter_container(m, SD_BUS_TYPE_ARRAY, "{qv}");
    if (r < 0)
        return r;
    while ((r = sd_bus_message_enter_container(m, SD_BUS_TYPE_DICT_ENTRY, "qv")) > 0) {
        uint16_t company = 0;
        if ((r = sd_bus_message_read_basic(m, SD_BUS_TYPE_UINT16, &company)) < 0)
            return r;
        char type = 0;
        const char* contents = nullptr;
        if ((r = sd_bus_message_peek_type(m, &type, &contents)) < 0)
            return r;
        if (contents != nullptr && std::strcmp(contents, "ay") == 0) {
            if ((r = sd_bus_message_enter_container(m, SD_BUS_TYPE_VARIANT, "ay")) < 0)
                return r;
            if ((r = ReadBytes(m, data[company])) < 0)
                return r;
            if ((r = sd_bus_message_exit_container(m)) < 0)
                return r;
        } else if ((r = sd_bus_message_skip(m, "v")) < 0) {
            return r;
        }
        if ((r = sd_bus_message_exit_container(m)) < 0)
            return r;
    }
    if (r < 0)
        return r;
    r = sd_bus_message_exit_container(m);
    if (r >= 0)
        out = std::move(data);
    return r;
}

int Stored(int r) {
    return r < 0 ? r : 1;
}

int ReadBool(sd_bus_message* m, Value& out) {
    int b = 0;
    const int r = sd_bus_message_read_basic(m, SD_BUS_TYPE_BOOLEAN, &b);
    if (r >= 0)
        out = b != 0;
    return r;
}

int ReadText(sd_bus_message* m, char type, Value& out) {
    const char* s = nullptr;
    const int r = sd_bus_message_read_basic(m, type, &s);
    if (r >= 0)
        out = std::string(s);
    return r;
}

// The basic value inside a variant of signature `contents`: 1 when stored, 0 when of a type the client
// does not store (skipped).
int ReadBasicValue(sd_bus_message* m, const char* contents, Value& out) {
    switch (contents[0]) {
        case SD_BUS_TYPE_BOOLEAN:
            return Stored(ReadBool(m, out));
        case SD_BUS_TYPE_BYTE:
            return Stored(ReadBasic<uint8_t>(m, SD_BUS_TYPE_BYTE, out));
        case SD_BUS_TYPE_INT16:
            return Stored(ReadBasic<int16_t>(m, SD_BUS_TYPE_INT16, out));
        case SD_BUS_TYPE_UINT16:
            return Stored(ReadBasic<uint16_t>(m, SD_BUS_TYPE_UINT16, out));
        case SD_BUS_TYPE_INT32:
            return Stored(ReadBasic<int32_t>(m, SD_BUS_TYPE_INT32, out));
        case SD_BUS_TYPE_UINT32:
            return Stored(ReadBasic<uint32_t>(m, SD_BUS_TYPE_UINT32, out));
        case SD_BUS_TYPE_STRING:
        case SD_BUS_TYPE_OBJECT_PATH:
        case SD_BUS_TYPE_SIGNATURE:
            return Stored(ReadText(m, contents[0], out));
        default: {
            const int r = sd_bus_message_skip(m, contents);
            return r < 0 ? r : 0;
        }
    }
}

// The arrays the client stores: as, ao, ay and a{qv}.
bool IsStoredArray(const char* contents) {
    return std::strcmp(contents, "as") == 0 || std::strcmp(contents, "ao") == 0 ||
           std::strcmp(contents, "ay") == 0 || std::strcmp(contents, "a{qv}") == 0;
}

int ReadArrayValue(sd_bus_message* m, const char* contents, Value& out) {
    if (contents[1] == 'y') {
        Bytes bytes;
        const int r = ReadBytes(m, bytes);
        if (r >= 0)
            out = std::move(bytes);
        return r;
    }
    if (contents[1] == '{')
        return ReadManufacturerData(m, out);
    return ReadStrings(m, contents + 1, out);
}

// Enters the variant of signature `contents`, reads its value with `read` and leaves it; returns what
// `read` did (1 stored, 0 skipped) or a negative errno.
template <typename Read>
int InVariant(sd_bus_message* m, const char* contents, Read read) {
    int r = sd_bus_message_enter_container(m, SD_BUS_TYPE_VARIANT, contents);
    if (r < 0)
        return r;
    const int stored = read();
    if (stored < 0)
        return stored;
    r = sd_bus_message_exit_container(m);
    return r < 0 ? r : stored;
}

// Reads the variant at the current position. Returns 1 when a value was stored, 0 when skipped.
int ReadVariant(sd_bus_message* m, Value& out) {
    char type = 0;
    const char* contents = nullptr;
    const int r = sd_bus_message_peek_type(m, &type, &contents);
    if (r < 0)
        return r;
    if (type != SD_BUS_TYPE_VARIANT || contents == nullptr)
        return -EBADMSG;
    if (std::strlen(contents) == 1)
        return InVariant(m, contents, [&] { return ReadBasicValue(m, contents, out); });
    if (IsStoredArray(contents))
        return InVariant(m, contents, [&] { return Stored(ReadArrayValue(m, contents, out)); });
    const int skipped = sd_bus_message_skip(m, "v");
    return skipped < 0 ? skipped : 0;
}

}  // namespace

int ReadProperties(sd_bus_message* m, Iface iface, PropSet& out) {
    int r = sd_bus_message_enter_container(m, SD_BUS_TYPE_ARRAY, "{sv}");
    if (r < 0)
        return r;
    while ((r = sd_bus_message_enter_container(m, SD_BUS_TYPE_DICT_ENTRY, "sv")) > 0) {
        const char* name = nullptr;
        if ((r = sd_bus_message_read_basic(m, SD_BUS_TYPE_STRING, &name)) < 0)
            return r;
        const Prop prop = FindProp(iface, name);
        if (prop == kPropCount) {
            r = sd_bus_message_skip(m, "v");
        } else {
            Value value;
            r = ReadVariant(m, value);
            if (r > 0)
                out.Set(prop, std::move(value));
        }
        if (r < 0)
            return r;
        if ((r = sd_bus_message_exit_container(m)) < 0)
            return r;
    }
    if (r < 0)
        return r;
    return sd_bus_message_exit_container(m);
}

int ReadInvalidated(sd_bus_message* m, Iface iface, std::vector<Prop>& out) {
    int r = sd_bus_message_enter_container(m, SD_BUS_TYPE_ARRAY, "s");
    if (r < 0)
        return r;
    const char* name = nullptr;
    while ((r = sd_bus_message_read_basic(m, SD_BUS_TYPE_STRING, &name)) > 0) {
        const Prop prop = FindProp(iface, name);
        if (prop != kPropCount)
            out.push_back(prop);
    }
    if (r < 0)
        return r;
    return sd_bus_message_exit_container(m);
}

int ReadInterfaces(sd_bus_message* m, IfaceProps& props, unsigned& mask) {
    int r = sd_bus_message_enter_container(m, SD_BUS_TYPE_ARRAY, "{sa{sv}}");
    if (r < 0)
        return r;
    while ((r = sd_bus_message_enter_container(m, SD_BUS_TYPE_DICT_ENTRY, "sa{sv}")) > 0) {
        const char* name = nullptr;
        if ((r = sd_bus_message_read_basic(m, SD_BUS_TYPE_STRING, &name)) < 0)
            return r;
        const int iface = IfaceFromName(name);
        if (iface < 0) {
            r = sd_bus_message_skip(m, "a{sv}");
        } else {
            mask |= 1u << iface;
            r = ReadProperties(m, static_cast<Iface>(iface), props[static_cast<unsigned>(iface)]);
        }
        if (r < 0)
            return r;
        if ((r = sd_bus_message_exit_container(m)) < 0)
            return r;
    }
    if (r < 0)
        return r;
    return sd_bus_message_exit_container(m);
}

}  // namespace tinyb::detail
