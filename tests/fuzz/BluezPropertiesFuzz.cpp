// BlueZ's property dictionaries as the client decodes them: a{sa{sv}} (InterfacesAdded, GetManagedObjects)
// into tinyb::detail::ReadInterfaces, a{sv} into ReadProperties for each mirrored interface, the "as" of
// invalidated names into ReadInvalidated, and bodies that are none of these.
//
// A well-formed body must decode in full: every known property of a type the client reads comes out with
// that value, nothing else is set, the interface mask names exactly the mirrored interfaces present, and
// the reader ends at the end of the body. A body of another type must be an error.
#include <cstdint>
#include <map>
#include <string>
#include <type_traits>
#include <variant>
#include <vector>

#include "BusValues.h"
#include "FuzzSupport.h"
#include "Wire.h"

namespace {

namespace W = tinyb::detail;
using Fuzz::Check;
using Fuzz::Value;

// Value types the client stores; a known property of any other type is skipped.
bool Stored(const std::string& signature) {
    return (signature.size() == 1 && std::string("bynqiusog").find(signature[0]) != std::string::npos) ||
           signature == "as" || signature == "ao" || signature == "ay" || signature == "a{qv}";
}

std::vector<std::string> Hints() {
    return {"s",  "o",  "b",     "y", "n",     "q", "i",  "u",        "as",
            "ao", "ay", "a{qv}", "x", "a{sv}", "v", "ag", "a{sa{sv}}"};
}

std::vector<std::string> InterfaceNames() {
    std::vector<std::string> names(W::kIfaceNames, W::kIfaceNames + W::kIfaceCount);
    names.emplace_back("org.freedesktop.DBus.Introspectable");
    names.emplace_back("org.bluez.Battery1");
    names.emplace_back("org.bluez.device1");
    return names;
}

// The names the client knows, of every interface: the same name is another property on another one.
std::vector<std::string> PropertyNames() {
    std::vector<std::string> names;
    for (unsigned p = 0; p < W::kPropCount; ++p)
        names.emplace_back(W::PropName(static_cast<W::Prop>(p)));
    names.emplace_back("Icon");
    names.emplace_back("TxPower");
    return names;
}

// The known property of `iface` called `name`, or kPropCount.
W::Prop Known(W::Iface iface, const std::string& name) {
    for (unsigned p = 0; p < W::kPropCount; ++p) {
        const auto prop = static_cast<W::Prop>(p);
        if (W::IfaceOf(prop) == iface && name == W::PropName(prop))
            return prop;
    }
    return W::kPropCount;
}

std::string ByteList(const W::Bytes& bytes) {
    std::string out = "[";
    for (std::size_t i = 0; i < bytes.size(); ++i)
        out += (i != 0 ? "," : "") + Fuzz::Integer(bytes[i]);
    return out + "]";
}

// A stored value in Fuzz::Render's text; manufacturer data as {company=bytes,...} by company.
std::string RenderStored(const W::Value& value) {
    return std::visit(
        [](const auto& v) -> std::string {
            using T = std::decay_t<decltype(v)>;
            if constexpr (std::is_same_v<T, std::monostate>) {
                Fuzz::Fail("a property is set to no value");
            } else if constexpr (std::is_same_v<T, bool>) {
                return Fuzz::Boolean(v);
            } else if constexpr (std::is_same_v<T, std::string>) {
                return Fuzz::Quoted(v);
            } else if constexpr (std::is_same_v<T, std::vector<std::string>>) {
                std::string out = "[";
                for (std::size_t i = 0; i < v.size(); ++i)
                    out += (i != 0 ? "," : "") + Fuzz::Quoted(v[i]);
                return out + "]";
            } else if constexpr (std::is_same_v<T, W::Bytes>) {
                return ByteList(v);
            } else if constexpr (std::is_same_v<T, W::ManufacturerData>) {
                std::string out = "{";
                for (const auto& [company, bytes] : v)
                    out += (out.size() > 1 ? "," : "") + Fuzz::Integer(company) + "=" + ByteList(bytes);
                return out + "}";
            } else {
                return Fuzz::Integer(v);
            }
        },
        value);
}

// What the client should keep of an appended value: manufacturer data keep each company's last byte
// array and drop entries of another type.
std::string ExpectedText(const Value& value) {
    if (value.signature != "a{qv}")
        return Fuzz::Render(value);
    std::map<uint16_t, std::string> data;
    for (const Value& entry : value.items) {
        const Value& content = entry.items.at(1).items.at(0);
        if (content.signature == "ay")
            data[static_cast<uint16_t>(std::stoul(entry.items.at(0).text))] = Fuzz::Render(content);
    }
    std::string out = "{";
    for (const auto& [company, bytes] : data)
        out += (out.size() > 1 ? "," : "") + Fuzz::Integer(company) + "=" + bytes;
    return out + "}";
}

// Property -> expected text, for the entries of one a{sv} of `iface`, added to `expected`.
void Expect(W::Iface iface, const Value& dictionary, std::map<W::Prop, std::string>& expected) {
    for (const Value& entry : dictionary.items) {
        const W::Prop prop = Known(iface, entry.items.at(0).text);
        const Value& content = entry.items.at(1).items.at(0);
        if (prop != W::kPropCount && Stored(content.signature))
            expected[prop] = ExpectedText(content);
    }
}

void CheckSet(W::Iface iface, const W::PropSet& set, const std::map<W::Prop, std::string>& expected) {
    Check(set.Empty() == expected.empty(), "the set's emptiness does not match what was sent");
    for (unsigned p = 0; p < W::kPropCount; ++p) {
        const auto prop = static_cast<W::Prop>(p);
        const W::Value* value = set.Get(prop);
        const auto want = expected.find(prop);
        if (want == expected.end()) {
            Check(value == nullptr, std::string("property set without a stored value: ") + W::PropName(prop) +
                                        " on " + W::kIfaceNames[iface]);
            continue;
        }
        Check(value != nullptr, std::string("property missing: ") + W::PropName(prop));
        const std::string text = RenderStored(*value);
        Check(text == want->second,
              std::string("property ") + W::PropName(prop) + " is " + text + " instead of " + want->second);
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    Fuzz::QuietLog();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::vector<std::string> kHints = Hints();
    static const std::vector<std::string> kInterfaces = InterfaceNames();
    static const std::vector<std::string> kProperties = PropertyNames();
    FuzzedDataProvider fdp(data, size);
    Fuzz::Draw draw{fdp, kHints};
    enum Shape { kInterfacesShape, kPropertiesShape, kInvalidatedShape, kRaw };
    const auto shape = static_cast<Shape>(fdp.ConsumeIntegralInRange<int>(kInterfacesShape, kRaw));
    const auto iface = static_cast<W::Iface>(fdp.ConsumeIntegralInRange<unsigned>(0, W::kIfaceCount - 1));

    // (interface name, its dictionary) in order, for a{sa{sv}}
    std::vector<std::pair<std::string, Value>> interfaces;
    Value dictionary;
    Value names;
    Fuzz::MessageRef message(Fuzz::Factory().Signal([&](sd_bus_message* m) {
        if (shape == kInterfacesShape) {
            const int count = fdp.ConsumeIntegralInRange<int>(0, 6);
            Check(sd_bus_message_open_container(m, 'a', "{sa{sv}}") >= 0, "open a{sa{sv}}");
            for (int i = 0; i < count; ++i) {
                const std::size_t pick = fdp.ConsumeIntegralInRange<std::size_t>(0, kInterfaces.size());
                const std::string name =
                    pick < kInterfaces.size() ? kInterfaces[pick] : Fuzz::BusText(fdp, 32);
                Check(sd_bus_message_open_container(m, 'e', "sa{sv}") >= 0, "open {sa{sv}}");
                Check(sd_bus_message_append_basic(m, 's', name.c_str()) >= 0, "append s");
                interfaces.emplace_back(name, Fuzz::AppendProperties(m, draw, kProperties, 3));
                Check(sd_bus_message_close_container(m) >= 0, "close {sa{sv}}");
            }
            Check(sd_bus_message_close_container(m) >= 0, "close a{sa{sv}}");
        } else if (shape == kPropertiesShape) {
            dictionary = Fuzz::AppendProperties(m, draw, kProperties, 3);
        } else if (shape == kInvalidatedShape) {
            const int count = fdp.ConsumeIntegralInRange<int>(0, 8);
            names = Value{"as", "", {}};
            Check(sd_bus_message_open_container(m, 'a', "s") >= 0, "open as");
            for (int i = 0; i < count; ++i) {
                const std::size_t pick = fdp.ConsumeIntegralInRange<std::size_t>(0, kProperties.size());
                const std::string name =
                    pick < kProperties.size() ? kProperties[pick] : Fuzz::BusText(fdp, 16);
                Check(sd_bus_message_append_basic(m, 's', name.c_str()) >= 0, "append s");
                names.items.push_back(Value{"s", name, {}});
            }
            Check(sd_bus_message_close_container(m) >= 0, "close as");
        } else {
            const int count = fdp.ConsumeIntegralInRange<int>(0, 3);
            for (int i = 0; i < count; ++i)
                Fuzz::AppendValue(m, draw, Fuzz::ChooseType(draw, 3), 3);
        }
    }));
    sd_bus_message* m = message.m;

    if (shape == kInterfacesShape) {
        W::IfaceProps props;
        unsigned mask = 0;
        const int r = W::ReadInterfaces(m, props, mask);
        Check(r >= 0, "a well-formed a{sa{sv}} did not decode: " + std::to_string(r));
        Check(sd_bus_message_at_end(m, 1) > 0, "the reader is not at the end of the body");
        unsigned expectedMask = 0;
        std::map<W::Prop, std::string> expected[W::kIfaceCount];
        for (const auto& [name, properties] : interfaces) {
            for (unsigned i = 0; i < W::kIfaceCount; ++i) {
                if (name == W::kIfaceNames[i]) {
                    expectedMask |= 1u << i;
                    // a repeated interface adds to what the earlier entry set
                    Expect(static_cast<W::Iface>(i), properties, expected[i]);
                }
            }
        }
        Check(mask == expectedMask, "the mask does not name exactly the mirrored interfaces sent");
        for (unsigned i = 0; i < W::kIfaceCount; ++i)
            CheckSet(static_cast<W::Iface>(i), props[i], expected[i]);
    } else if (shape == kPropertiesShape) {
        W::PropSet set;
        const int r = W::ReadProperties(m, iface, set);
        Check(r >= 0, "a well-formed a{sv} did not decode: " + std::to_string(r));
        Check(sd_bus_message_at_end(m, 1) > 0, "the reader is not at the end of the body");
        std::map<W::Prop, std::string> expected;
        Expect(iface, dictionary, expected);
        CheckSet(iface, set, expected);
    } else if (shape == kInvalidatedShape) {
        std::vector<W::Prop> gone;
        const int r = W::ReadInvalidated(m, iface, gone);
        Check(r >= 0, "a well-formed as did not decode: " + std::to_string(r));
        Check(sd_bus_message_at_end(m, 1) > 0, "the reader is not at the end of the body");
        std::vector<W::Prop> expected;
        for (const Value& name : names.items) {
            const W::Prop prop = Known(iface, name.text);
            if (prop != W::kPropCount)
                expected.push_back(prop);
        }
        Check(gone == expected, "the invalidated list is not the known names of the interface, in order");
    } else {
        // each reader on the same body: only its own type may decode
        const std::vector<std::string> types = Fuzz::BodyTypes(m);
        const std::string first = types.empty() ? "" : types[0];
        W::IfaceProps props;
        unsigned mask = 0;
        int r = W::ReadInterfaces(m, props, mask);
        Check((r >= 0) == (first == "a{sa{sv}}"),
              "ReadInterfaces on '" + first + "' gave " + std::to_string(r));
        Check(sd_bus_message_rewind(m, 1) >= 0, "rewind");
        W::PropSet set;
        r = W::ReadProperties(m, iface, set);
        Check((r >= 0) == (first == "a{sv}"), "ReadProperties on '" + first + "' gave " + std::to_string(r));
        Check(sd_bus_message_rewind(m, 1) >= 0, "rewind");
        std::vector<W::Prop> gone;
        r = W::ReadInvalidated(m, iface, gone);
        Check((r >= 0) == (first == "as"), "ReadInvalidated on '" + first + "' gave " + std::to_string(r));
    }
    return 0;
}
