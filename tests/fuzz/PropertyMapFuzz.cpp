// Property dictionaries as the daemon's peers send them (PropertiesChanged, GetAll replies), and bodies
// that are something else, into sdbus_utils::ParseProperties and ParsePropertiesWithType.
//
// A well-formed a{sv} must always parse; every entry of a type the parsers store must come out with its
// signature, its documented C++ type and its value, every other entry must be absent, and the reader must
// stand after the dictionary. A body that does not start with an a{sv} must fail and change no map.
#include <any>
#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

#include "BusValues.h"
#include "FuzzSupport.h"
#include "dbus_helper/SdbusUtils.h"

namespace {

using Fuzz::Check;
using Fuzz::Value;

// The value types the parsers store (SdbusUtils.h); entries of any other type are skipped.
const std::set<std::string> kStored = {"s",  "o",  "g",  "b",  "y",  "n",  "q",      "i",  "u",
                                       "x",  "t",  "d",  "as", "ao", "ag", "ab",     "ay", "an",
                                       "aq", "ai", "au", "ax", "at", "ad", "a(siib)"};

// The stored types, and types the daemon's peers send beside them that must be skipped.
std::vector<std::string> Hints() {
    std::vector<std::string> hints(kStored.begin(), kStored.end());
    for (const char* other : {"a{sv}", "a{ss}", "v", "(ii)", "a(ss)", "(sassas)", "a(sii)", "aas"})
        hints.emplace_back(other);
    return hints;
}

// Names the daemon's handlers look up, so that keys repeat.
const std::vector<std::string> kNames = {"Powered",      "IPAddress",    "ActivePowerSource",
                                         "BatteryTypes", "AccessPoints", "Frequencies",
                                         "SSID",         "advertSchema"};

// No key from the bus can hold U+FFFF (sd-bus refuses it), so this entry is never replaced by a parse.
const std::string kSentinel = "\xEF\xBF\xBF";

template <typename T>
const T& As(const std::any& value, const std::string& signature) {
    const T* typed = std::any_cast<T>(&value);
    Check(typed != nullptr, "a value of type " + signature + " is not held as its documented C++ type");
    return *typed;
}

template <typename T>
std::string Scalar(const T& value) {
    if constexpr (std::is_same_v<T, bool>)
        return Fuzz::Boolean(value);
    else if constexpr (std::is_same_v<T, double>)
        return Fuzz::Real(value);
    else if constexpr (std::is_same_v<T, std::string>)
        return Fuzz::Quoted(value);
    else
        return Fuzz::Integer(value);
}

template <typename T>
std::string List(const std::any& value, const std::string& signature) {
    std::string out = "[";
    const auto& items = As<std::vector<T>>(value, signature);
    for (std::size_t i = 0; i < items.size(); ++i)
        out += (i != 0 ? "," : "") + Scalar(static_cast<T>(items[i]));
    return out + "]";
}

// A parsed value in Fuzz::Render's text, read as the C++ type that SdbusUtils.h documents for it.
std::string RenderParsed(const std::string& signature, const std::any& value) {
    if (signature == "s" || signature == "o" || signature == "g")
        return Scalar(As<std::string>(value, signature));
    if (signature == "b")
        return Scalar(As<bool>(value, signature));
    if (signature == "y")
        return Scalar(As<uint8_t>(value, signature));
    if (signature == "n")
        return Scalar(As<int16_t>(value, signature));
    if (signature == "q")
        return Scalar(As<uint16_t>(value, signature));
    if (signature == "i")
        return Scalar(As<int32_t>(value, signature));
    if (signature == "u")
        return Scalar(As<uint32_t>(value, signature));
    if (signature == "x")
        return Scalar(As<int64_t>(value, signature));
    if (signature == "t")
        return Scalar(As<uint64_t>(value, signature));
    if (signature == "d")
        return Scalar(As<double>(value, signature));
    if (signature == "as" || signature == "ao" || signature == "ag")
        return List<std::string>(value, signature);
    if (signature == "ab")
        return List<bool>(value, signature);
    if (signature == "ay")
        return List<uint8_t>(value, signature);
    if (signature == "an")
        return List<int16_t>(value, signature);
    if (signature == "aq")
        return List<uint16_t>(value, signature);
    if (signature == "ai")
        return List<int32_t>(value, signature);
    if (signature == "au")
        return List<uint32_t>(value, signature);
    if (signature == "ax")
        return List<int64_t>(value, signature);
    if (signature == "at")
        return List<uint64_t>(value, signature);
    if (signature == "ad")
        return List<double>(value, signature);
    if (signature == "a(siib)") {
        std::string out = "[";
        const auto& items = As<std::vector<sdbus_utils::AccessPointTuple>>(value, signature);
        for (std::size_t i = 0; i < items.size(); ++i) {
            const auto& [name, a, b, flag] = items[i];
            out += (i != 0 ? ",(" : "(") + Scalar(name) + "," + Scalar(a) + "," + Scalar(b) + "," +
                   Scalar(flag) + ")";
        }
        return out + "]";
    }
    Fuzz::Fail("a parser stored a value of type " + signature + ", which it does not read");
}

// key -> (signature, value text): the last entry of a stored type for each key.
using Expected = std::map<std::string, std::pair<std::string, std::string>>;

Expected ExpectedOf(const Value& dictionary) {
    Expected expected;
    if (dictionary.signature != "a{sv}")
        return expected;
    for (const Value& entry : dictionary.items) {
        const Value& content = entry.items.at(1).items.at(0);
        if (kStored.count(content.signature) != 0)
            expected[entry.items.at(0).text] = {content.signature, Fuzz::Render(content)};
    }
    return expected;
}

// Both parsers, each on the body from its start advanced by `skip`. Checks what they must agree on and,
// given `expected`, what they must have found. Returns the result code.
int ParseBoth(sd_bus_message* m, const std::function<void()>& skip, const Expected* expected) {
    sdbus_utils::TypedPropertyMap typed;
    typed[kSentinel] = {"u", uint32_t{7}};
    Check(sd_bus_message_rewind(m, 1) >= 0, "rewind");
    skip();
    const int typedResult = sdbus_utils::ParsePropertiesWithType(m, typed);

    sdbus_utils::PropertyMap plain;
    plain[kSentinel] = uint32_t{7};
    Check(sd_bus_message_rewind(m, 1) >= 0, "rewind");
    skip();
    const int plainResult = sdbus_utils::ParseProperties(m, plain);

    Check(typedResult == plainResult, "the two parsers disagree on the same body");
    Check(typedResult <= 0, "a parser returned a positive result");
    Check(typed.count(kSentinel) == 1 && plain.count(kSentinel) == 1,
          "an entry the body did not name was lost");
    if (typedResult < 0) {
        Check(typed.size() == 1 && plain.size() == 1, "a failed parse changed the map");
        return typedResult;
    }
    Check(typed.size() == plain.size(), "the two parsers found different entries");
    for (const auto& [key, entry] : typed) {
        if (key == kSentinel)
            continue;
        Check(kStored.count(entry.first) != 0, "stored an entry of type " + entry.first);
        const auto other = plain.find(key);
        Check(other != plain.end(), "the untyped parser lacks " + key);
        const std::string text = RenderParsed(entry.first, entry.second);
        Check(RenderParsed(entry.first, other->second) == text, "the two parsers read different values");
        if (expected != nullptr) {
            const auto want = expected->find(key);
            Check(want != expected->end(), "an entry that should have been skipped is there: " + key);
            Check(want->second.first == entry.first, "wrong signature for " + key);
            Check(want->second.second == text,
                  "wrong value for " + key + ": " + text + " instead of " + want->second.second);
        }
    }
    if (expected != nullptr)
        Check(expected->size() + 1 == typed.size(), "an entry of a stored type is missing");
    return typedResult;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    Fuzz::QuietLog();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::vector<std::string> kHints = Hints();
    FuzzedDataProvider fdp(data, size);
    Fuzz::Draw draw{fdp, kHints};
    enum Shape { kChanged, kGetAll, kRaw };
    const auto shape = static_cast<Shape>(fdp.ConsumeIntegralInRange<int>(kChanged, kRaw));

    Value dictionary;
    std::vector<Value> raw;
    Fuzz::MessageRef message(Fuzz::Factory().Signal([&](sd_bus_message* m) {
        if (shape == kChanged) {
            Check(sd_bus_message_append_basic(m, 's', "org.example.Iface") >= 0, "append s");
            dictionary = Fuzz::AppendProperties(m, draw, kNames, 3);
            Fuzz::AppendValue(m, draw, "as", 0);
        } else if (shape == kGetAll) {
            dictionary = Fuzz::AppendProperties(m, draw, kNames, 3);
        } else {
            const int count = fdp.ConsumeIntegralInRange<int>(0, 3);
            for (int i = 0; i < count; ++i)
                raw.push_back(Fuzz::AppendValue(m, draw, Fuzz::ChooseType(draw, 3), 3));
        }
    }));
    sd_bus_message* m = message.m;

    if (shape == kChanged) {
        const Expected expected = ExpectedOf(dictionary);
        const int r = ParseBoth(
            m, [m] { Check(sd_bus_message_skip(m, "s") >= 0, "skip s"); }, &expected);
        Check(r == 0, "a well-formed dictionary did not parse: " + std::to_string(r));
        // the invalidated names follow, and then nothing
        Check(sd_bus_message_skip(m, "as") >= 0, "the reader is not after the dictionary");
        Check(sd_bus_message_at_end(m, 1) > 0, "the body goes on after the invalidated names");
    } else if (shape == kGetAll) {
        const Expected expected = ExpectedOf(dictionary);
        const int r = ParseBoth(
            m, [] {}, &expected);
        Check(r == 0, "a well-formed dictionary did not parse: " + std::to_string(r));
        Check(sd_bus_message_at_end(m, 1) > 0, "the reader is not after the dictionary");
    } else {
        // at the start, as a GetAll reply is read, and after a leading string, as PropertiesChanged is
        const std::vector<std::string> types = Fuzz::BodyTypes(m);
        const std::string first = types.empty() ? "" : types[0];
        const Expected expectedFirst = ExpectedOf(raw.empty() ? Value{} : raw[0]);
        int r = ParseBoth(
            m, [] {}, first == "a{sv}" ? &expectedFirst : nullptr);
        Check((r == 0) == (first == "a{sv}"),
              "a body starting with '" + first + "' gave " + std::to_string(r));
        if (first == "s") {
            const std::string second = types.size() > 1 ? types[1] : "";
            const Expected expectedSecond = ExpectedOf(raw.size() > 1 ? raw[1] : Value{});
            r = ParseBoth(
                m, [m] { Check(sd_bus_message_skip(m, "s") >= 0, "skip s"); },
                second == "a{sv}" ? &expectedSecond : nullptr);
            Check((r == 0) == (second == "a{sv}"),
                  "a body going on with '" + second + "' after the string gave " + std::to_string(r));
        }
    }
    return 0;
}
