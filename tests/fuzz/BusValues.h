#pragma once
// Sd-bus messages for the targets that feed the daemon's property readers: a factory that seals messages
// without a bus daemon, and values of any D-Bus type drawn from the fuzzer's input. Each appended value
// comes back as a tree, so that a target can say what a reader should have made of it.

#include <fcntl.h>
#include <fuzzer/FuzzedDataProvider.h>
#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <type_traits>
#include <vector>

#include "FuzzSupport.h"
#include "dbus_helper/Handles.h"
#include "test_support/BusKit.h"

namespace Fuzz {

// Messages built on a connection that never talks.
class MessageFactory {
  public:
    MessageFactory() {
        Check(quiet.Result() >= 0, "quiet bus");
        devNull = open("/dev/null", O_RDONLY | O_CLOEXEC);
        Check(devNull >= 0, "open /dev/null");
        // Whether this connection lets a message carry descriptors ('h'); asked once, not assumed.
        const DbusHelper::Message probe(NewSignal());
        fdsAllowed = sd_bus_message_append_basic(probe.get(), 'h', &devNull) >= 0;
    }
    ~MessageFactory() { close(devNull); }
    MessageFactory(const MessageFactory&) = delete;
    MessageFactory& operator=(const MessageFactory&) = delete;

    // A PropertiesChanged signal whose body `fill` appends, sealed and rewound so that it reads like a
    // received one. The caller unrefs it.
    sd_bus_message* Signal(const std::function<void(sd_bus_message*)>& fill) {
        sd_bus_message* m = NewSignal();
        fill(m);
        Check(quiet.SealForReading(m) >= 0, "seal");
        return m;
    }

    bool FdsAllowed() const { return fdsAllowed; }
    int DevNull() const { return devNull; }

  private:
    sd_bus_message* NewSignal() {
        sd_bus_message* m = nullptr;
        Check(sd_bus_message_new_signal(quiet.Get(), &m, "/com/quorbel/fuzz",
                                        "org.freedesktop.DBus.Properties", "PropertiesChanged") >= 0,
              "new signal");
        return m;
    }

    BusKit::QuietBus quiet;
    int devNull = -1;
    bool fdsAllowed = false;
};

// One for the process: a connection per input would cost more than the reading under test.
inline MessageFactory& Factory() {
    static MessageFactory* const factory = new MessageFactory;
    return *factory;
}

// Owns a message to the end of a scope.
struct MessageRef {
    explicit MessageRef(sd_bus_message* message) : owner(message), m(message) {}
    DbusHelper::Message owner;
    sd_bus_message* const m;
};

// ------------------------------------------------------------------------------------------------------
// Texts of values, the same for the appended tree and for what a reader returns.

template <typename T>
std::string Integer(T value) {
    static_assert(std::is_integral_v<T>);
    if constexpr (std::is_signed_v<T>)
        return std::to_string(static_cast<long long>(value));
    else
        return std::to_string(static_cast<unsigned long long>(value));
}

inline std::string Boolean(bool value) {
    return value ? "true" : "false";
}

// Exact, NaN payloads aside: the bits went through sd-bus unchanged.
inline std::string Real(double value) {
    char text[64];
    std::snprintf(text, sizeof text, "%a", value);
    return text;
}

// Length-prefixed, so that a comma or a bracket inside never reads as structure.
inline std::string Quoted(const std::string& text) {
    return std::to_string(text.size()) + ":" + text;
}

// One appended value. Basic values keep their text as Integer, Boolean, Real or (for s, o and g) the
// plain text; containers keep their items: array elements, struct fields, a dictionary entry's key and
// value, a variant's content.
struct Value {
    std::string signature;
    std::string text;
    std::vector<Value> items;
};

inline std::string Render(const Value& value) {
    const char kind = value.signature[0];
    const auto join = [&](const char* open, const char* separator, const char* close) {
        std::string out = open;
        for (std::size_t i = 0; i < value.items.size(); ++i) {
            if (i != 0)
                out += separator;
            out += Render(value.items[i]);
        }
        return out + close;
    };
    switch (kind) {
        case 's':
        case 'o':
        case 'g':
            return Quoted(value.text);
        case 'a':
            return join("[", ",", "]");
        case '(':
            return join("(", ",", ")");
        case '{':
            return join("", "=", "");
        case 'v':
            return "<" + value.items.at(0).signature + ">" + Render(value.items.at(0));
        default:
            return value.text;
    }
}

// ------------------------------------------------------------------------------------------------------
// Drawing types and values from the input.

// What a draw may produce. `hints` are complete types offered beside the random ones: the types a
// reader looks for, which random signatures would rarely hit.
struct Draw {
    FuzzedDataProvider& fdp;
    const std::vector<std::string>& hints;
    // elements of an array of containers, and of basic values (manufacturer data run to a dozen octets)
    int maxItems = 4;
    int maxBasicItems = 16;
};

// Basic types; 'h' last, so that it can be left out.
inline constexpr char kBasicTypes[] = "ybnqiuxtdsogh";

inline std::string BasicType(Draw& draw, bool allowFds) {
    const std::size_t count = std::strlen(kBasicTypes) - (allowFds ? 0 : 1);
    return std::string(1, kBasicTypes[draw.fdp.ConsumeIntegralInRange<std::size_t>(0, count - 1)]);
}

// One complete type. `depth` bounds the nesting (sd-bus refuses more than 128 open containers) and the
// signature's length: at depth 0 only a basic type, and at 4, with hints of up to 9 characters, under
// 100 characters where a signature may have 255.
inline std::string ChooseType(Draw& draw, int depth) {
    const bool fds = Factory().FdsAllowed();
    if (depth <= 0)
        return BasicType(draw, fds);
    const std::size_t pick = draw.fdp.ConsumeIntegralInRange<std::size_t>(0, draw.hints.size() + 4);
    if (pick < draw.hints.size())
        return draw.hints[pick];
    switch (pick - draw.hints.size()) {
        case 0:
            return BasicType(draw, fds);
        case 1:
            return "v";
        case 2:
            return "a" + ChooseType(draw, depth - 1);
        case 3:
            // a dictionary key is basic, and not a descriptor
            return "a{" + BasicType(draw, false) + ChooseType(draw, depth - 1) + "}";
        default: {
            std::string fields;
            const int count = draw.fdp.ConsumeIntegralInRange<int>(1, 2);
            for (int i = 0; i < count; ++i)
                fields += ChooseType(draw, depth - 1);
            return "(" + fields + ")";
        }
    }
}

// Text that sd-bus accepts in a string: UTF-8 without NUL, surrogates or the noncharacters it refuses.
// Octets that do not fit become '?'.
inline std::string BusText(FuzzedDataProvider& fdp, std::size_t maxLength) {
    const std::string raw = fdp.ConsumeRandomLengthString(maxLength);
    std::string out;
    for (std::size_t pos = 0; pos < raw.size();) {
        uint32_t c = 0;
        const std::size_t length = DecodeUtf8(raw, pos, c);
        if (length == 0) {
            out += '?';
            ++pos;
            continue;
        }
        if (c == 0 || (c >= 0xFDD0 && c <= 0xFDEF) || (c & 0xFFFEu) == 0xFFFEu)
            out += '?';
        else
            out.append(raw, pos, length);
        pos += length;
    }
    return out;
}

// "/" or "/seg/seg...", segments of [A-Za-z0-9_].
inline std::string BusPath(FuzzedDataProvider& fdp) {
    static const char kChars[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_";
    const std::string raw = fdp.ConsumeRandomLengthString(32);
    std::string path;
    std::string segment;
    for (const char c : raw) {
        const auto octet = static_cast<uint8_t>(c);
        if (octet % 8 == 0 && !segment.empty()) {
            path += "/" + segment;
            segment.clear();
        } else {
            segment += kChars[octet % (sizeof kChars - 1)];
        }
    }
    if (!segment.empty())
        path += "/" + segment;
    return path.empty() ? "/" : path;
}

// End of the complete type that starts at signature[pos].
inline std::size_t TypeEnd(const std::string& signature, std::size_t pos) {
    const char kind = signature.at(pos);
    if (kind == 'a')
        return TypeEnd(signature, pos + 1);
    if (kind == '(' || kind == '{') {
        const char close = kind == '(' ? ')' : '}';
        ++pos;
        while (signature.at(pos) != close)
            pos = TypeEnd(signature, pos);
        return pos + 1;
    }
    return pos + 1;
}

template <typename T>
Value AppendNumber(sd_bus_message* m, Draw& draw, char type) {
    const T number = draw.fdp.ConsumeIntegral<T>();
    Check(sd_bus_message_append_basic(m, type, &number) >= 0, std::string("append ") + type);
    return Value{std::string(1, type), Integer(number), {}};
}

// Appends a value of the complete type `type`; a variant's content is drawn with `depth` - 1.
inline Value AppendValue(sd_bus_message* m, Draw& draw, const std::string& type, int depth) {
    const char kind = type.at(0);
    const auto openClose = [&](char container, const std::string& contents, const auto& body) {
        Check(sd_bus_message_open_container(m, container, contents.c_str()) >= 0,
              "open " + std::string(1, container) + " " + contents);
        body();
        Check(sd_bus_message_close_container(m) >= 0, "close " + contents);
    };
    switch (kind) {
        case 'y':
            return AppendNumber<uint8_t>(m, draw, kind);
        case 'n':
            return AppendNumber<int16_t>(m, draw, kind);
        case 'q':
            return AppendNumber<uint16_t>(m, draw, kind);
        case 'i':
            return AppendNumber<int32_t>(m, draw, kind);
        case 'u':
            return AppendNumber<uint32_t>(m, draw, kind);
        case 'x':
            return AppendNumber<int64_t>(m, draw, kind);
        case 't':
            return AppendNumber<uint64_t>(m, draw, kind);
        case 'b': {
            const int flag = draw.fdp.ConsumeBool() ? 1 : 0;
            Check(sd_bus_message_append_basic(m, 'b', &flag) >= 0, "append b");
            return Value{"b", Boolean(flag != 0), {}};
        }
        case 'd': {
            const uint64_t bits = draw.fdp.ConsumeIntegral<uint64_t>();
            double real = 0;
            std::memcpy(&real, &bits, sizeof real);
            Check(sd_bus_message_append_basic(m, 'd', &real) >= 0, "append d");
            return Value{"d", Real(real), {}};
        }
        case 's':
        case 'o':
        case 'g': {
            std::string text;
            if (kind == 's') {
                text = BusText(draw.fdp, 24);
            } else if (kind == 'o') {
                text = BusPath(draw.fdp);
            } else {
                const int count = draw.fdp.ConsumeIntegralInRange<int>(0, 2);
                for (int i = 0; i < count; ++i)
                    text += ChooseType(draw, 1);
            }
            Check(sd_bus_message_append_basic(m, kind, text.c_str()) >= 0,
                  std::string("append ") + kind + " " + text);
            return Value{std::string(1, kind), text, {}};
        }
        case 'h': {
            const int fd = Factory().DevNull();
            Check(sd_bus_message_append_basic(m, 'h', &fd) >= 0, "append h");
            return Value{"h", "fd", {}};
        }
        case 'v': {
            const std::string contents = ChooseType(draw, depth > 0 ? depth - 1 : 0);
            Value variant{"v", "", {}};
            openClose('v', contents, [&] {
                variant.items.push_back(AppendValue(m, draw, contents, depth > 0 ? depth - 1 : 0));
            });
            return variant;
        }
        case 'a': {
            const std::string element = type.substr(1);
            Value array{type, "", {}};
            const int most = element.size() == 1 && element != "v" ? draw.maxBasicItems : draw.maxItems;
            const int count = draw.fdp.ConsumeIntegralInRange<int>(0, most);
            openClose('a', element, [&] {
                for (int i = 0; i < count; ++i)
                    array.items.push_back(AppendValue(m, draw, element, depth));
            });
            return array;
        }
        case '(':
        case '{': {
            const std::string inner = type.substr(1, type.size() - 2);
            Value fields{type, "", {}};
            openClose(kind == '(' ? 'r' : 'e', inner, [&] {
                for (std::size_t pos = 0; pos < inner.size();) {
                    const std::size_t end = TypeEnd(inner, pos);
                    fields.items.push_back(AppendValue(m, draw, inner.substr(pos, end - pos), depth));
                    pos = end;
                }
            });
            return fields;
        }
        default:
            Fail("no such type: " + type);
    }
}

// An a{sv} of up to 12 entries. Keys come from `names` or are any text; values are of any type, the
// hints often. Each item of the result is an entry: items[0] the key, items[1] the variant.
inline Value AppendProperties(sd_bus_message* m, Draw& draw, const std::vector<std::string>& names,
                              int depth) {
    Value dictionary{"a{sv}", "", {}};
    const int count = draw.fdp.ConsumeIntegralInRange<int>(0, 12);
    Check(sd_bus_message_open_container(m, 'a', "{sv}") >= 0, "open a{sv}");
    for (int i = 0; i < count; ++i) {
        const std::size_t pick = draw.fdp.ConsumeIntegralInRange<std::size_t>(0, names.size());
        const std::string key = pick < names.size() ? names[pick] : BusText(draw.fdp, 16);
        const std::string contents = ChooseType(draw, depth);
        Check(sd_bus_message_open_container(m, 'e', "sv") >= 0, "open {sv}");
        Check(sd_bus_message_append_basic(m, 's', key.c_str()) >= 0, "append key " + key);
        Check(sd_bus_message_open_container(m, 'v', contents.c_str()) >= 0, "open v " + contents);
        Value content = AppendValue(m, draw, contents, depth);
        Check(sd_bus_message_close_container(m) >= 0, "close v");
        Check(sd_bus_message_close_container(m) >= 0, "close {sv}");
        dictionary.items.push_back(
            Value{"{sv}", "", {Value{"s", key, {}}, Value{"v", "", {std::move(content)}}}});
    }
    Check(sd_bus_message_close_container(m) >= 0, "close a{sv}");
    return dictionary;
}

// The complete types of `m`'s body, in order.
inline std::vector<std::string> BodyTypes(sd_bus_message* m) {
    const char* signature = sd_bus_message_get_signature(m, 1);
    const std::string all = signature != nullptr ? signature : "";
    std::vector<std::string> types;
    for (std::size_t pos = 0; pos < all.size();) {
        const std::size_t end = TypeEnd(all, pos);
        types.push_back(all.substr(pos, end - pos));
        pos = end;
    }
    return types;
}

}  // namespace Fuzz
