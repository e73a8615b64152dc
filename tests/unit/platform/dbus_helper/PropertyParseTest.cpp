#include <gtest/gtest.h>

#include <any>
#include <cstdint>
#include <limits>
#include <string>
#include <tuple>
#include <vector>

#include "dbus_helper/SdbusUtils.h"
#include "logging/Log.h"
#include "test_support/BusPair.h"

using DbusHelperTest::MessageFactory;
using sdbus_utils::TypedPropertyMap;

namespace {

// Appends one dictionary entry {key: variant(signature, value appended by fill)}.
void Entry(sd_bus_message* m, const char* key, const char* signature,
           const std::function<void(sd_bus_message*)>& fill) {
    ASSERT_GE(sd_bus_message_open_container(m, 'e', "sv"), 0);
    ASSERT_GE(sd_bus_message_append_basic(m, 's', key), 0);
    ASSERT_GE(sd_bus_message_open_container(m, 'v', signature), 0);
    fill(m);
    ASSERT_GE(sd_bus_message_close_container(m), 0);
    ASSERT_GE(sd_bus_message_close_container(m), 0);
}

template <typename T>
T Get(const TypedPropertyMap& map, const std::string& key, const std::string& signature) {
    const auto it = map.find(key);
    if (it == map.end())
        throw std::runtime_error("missing " + key);
    EXPECT_EQ(it->second.first, signature) << key;
    return std::any_cast<T>(it->second.second);
}

// A PropertiesChanged-shaped body: interface name, then the a{sv} built by `entries`.
DbusHelper::Message Changed(MessageFactory& factory, const std::function<void(sd_bus_message*)>& entries) {
    return factory.Signal([&](sd_bus_message* m) {
        ASSERT_GE(sd_bus_message_append(m, "s", "org.example.Iface"), 0);
        ASSERT_GE(sd_bus_message_open_container(m, 'a', "{sv}"), 0);
        entries(m);
        ASSERT_GE(sd_bus_message_close_container(m), 0);
        ASSERT_GE(sd_bus_message_append(m, "as", 0), 0);
    });
}

}  // namespace

TEST(ParsePropertiesWithType, EveryScalarTypeKeepsItsSignatureAndValue) {
    MessageFactory factory;
    DbusHelper::Message m = Changed(factory, [](sd_bus_message* m) {
        Entry(m, "S", "s", [](sd_bus_message* m) { sd_bus_message_append(m, "s", "text é"); });
        Entry(m, "B", "b", [](sd_bus_message* m) { sd_bus_message_append(m, "b", 1); });
        Entry(m, "U", "u", [](sd_bus_message* m) { sd_bus_message_append(m, "u", UINT32_C(4000000000)); });
        Entry(m, "I", "i", [](sd_bus_message* m) { sd_bus_message_append(m, "i", INT32_C(-7)); });
        Entry(m, "N", "n", [](sd_bus_message* m) { sd_bus_message_append(m, "n", int16_t{-300}); });
        Entry(m, "Q", "q", [](sd_bus_message* m) { sd_bus_message_append(m, "q", uint16_t{65000}); });
        Entry(m, "T", "t",
              [](sd_bus_message* m) { sd_bus_message_append(m, "t", std::numeric_limits<uint64_t>::max()); });
        Entry(m, "X", "x",
              [](sd_bus_message* m) { sd_bus_message_append(m, "x", std::numeric_limits<int64_t>::min()); });
        Entry(m, "D", "d", [](sd_bus_message* m) { sd_bus_message_append(m, "d", 2.5); });
        Entry(m, "Y", "y", [](sd_bus_message* m) { sd_bus_message_append(m, "y", uint8_t{0xFE}); });
        Entry(m, "O", "o", [](sd_bus_message* m) { sd_bus_message_append(m, "o", "/com/quorbel/x"); });
        Entry(m, "G", "g", [](sd_bus_message* m) { sd_bus_message_append(m, "g", "a{sv}"); });
    });
    ASSERT_GE(sd_bus_message_skip(m.get(), "s"), 0);

    TypedPropertyMap map;
    ASSERT_EQ(sdbus_utils::ParsePropertiesWithType(m.get(), map), 0);
    EXPECT_EQ(map.size(), 12u);
    EXPECT_EQ(Get<std::string>(map, "S", "s"), "text é");
    EXPECT_EQ(Get<bool>(map, "B", "b"), true);
    EXPECT_EQ(Get<uint32_t>(map, "U", "u"), 4000000000u);
    EXPECT_EQ(Get<int32_t>(map, "I", "i"), -7);
    EXPECT_EQ(Get<int16_t>(map, "N", "n"), -300);
    EXPECT_EQ(Get<uint16_t>(map, "Q", "q"), 65000);
    EXPECT_EQ(Get<uint64_t>(map, "T", "t"), std::numeric_limits<uint64_t>::max());
    EXPECT_EQ(Get<int64_t>(map, "X", "x"), std::numeric_limits<int64_t>::min());
    EXPECT_DOUBLE_EQ(Get<double>(map, "D", "d"), 2.5);
    EXPECT_EQ(Get<uint8_t>(map, "Y", "y"), 0xFE);
    EXPECT_EQ(Get<std::string>(map, "O", "o"), "/com/quorbel/x");
    EXPECT_EQ(Get<std::string>(map, "G", "g"), "a{sv}");
    // the reader stands after the dictionary: the invalidated list follows
    EXPECT_GE(sd_bus_message_skip(m.get(), "as"), 0);
}

TEST(ParsePropertiesWithType, ArraysBecomeVectorsOfTheElementType) {
    MessageFactory factory;
    DbusHelper::Message m = Changed(factory, [](sd_bus_message* m) {
        Entry(m, "BatteryVoltages", "ai",
              [](sd_bus_message* m) { sd_bus_message_append(m, "ai", 2, 16900, -1); });
        Entry(m, "BatteryTypes", "au", [](sd_bus_message* m) { sd_bus_message_append(m, "au", 1, 4u); });
        Entry(m, "Frequencies", "as",
              [](sd_bus_message* m) { sd_bus_message_append(m, "as", 2, "2.4", "5.0"); });
        Entry(m, "Raw", "ay", [](sd_bus_message* m) {
            const uint8_t bytes[] = {0x00, 0x80, 0xFF};
            sd_bus_message_append_array(m, 'y', bytes, sizeof bytes);
        });
        Entry(m, "Empty", "ai", [](sd_bus_message* m) { sd_bus_message_append(m, "ai", 0); });
        Entry(m, "Flags", "ab", [](sd_bus_message* m) { sd_bus_message_append(m, "ab", 3, 1, 0, 1); });
        Entry(m, "AccessPoints", "a(siib)", [](sd_bus_message* m) {
            sd_bus_message_append(m, "a(siib)", 2, "unit-ap", 6, -40, 1, "neighbour", 11, -71, 0);
        });
    });
    ASSERT_GE(sd_bus_message_skip(m.get(), "s"), 0);

    TypedPropertyMap map;
    ASSERT_EQ(sdbus_utils::ParsePropertiesWithType(m.get(), map), 0);
    EXPECT_EQ(Get<std::vector<int32_t>>(map, "BatteryVoltages", "ai"), (std::vector<int32_t>{16900, -1}));
    EXPECT_EQ(Get<std::vector<uint32_t>>(map, "BatteryTypes", "au"), (std::vector<uint32_t>{4}));
    EXPECT_EQ(Get<std::vector<std::string>>(map, "Frequencies", "as"),
              (std::vector<std::string>{"2.4", "5.0"}));
    EXPECT_EQ(Get<std::vector<uint8_t>>(map, "Raw", "ay"), (std::vector<uint8_t>{0x00, 0x80, 0xFF}));
    EXPECT_TRUE(Get<std::vector<int32_t>>(map, "Empty", "ai").empty());
    EXPECT_EQ(Get<std::vector<bool>>(map, "Flags", "ab"), (std::vector<bool>{true, false, true}));
    using AP = std::tuple<std::string, int32_t, int32_t, bool>;
    EXPECT_EQ(Get<std::vector<AP>>(map, "AccessPoints", "a(siib)"),
              (std::vector<AP>{AP{"unit-ap", 6, -40, true}, AP{"neighbour", 11, -71, false}}));
}

TEST(ParsePropertiesWithType, UnsupportedTypesAreSkippedAndTheRestIsKept) {
    MessageFactory factory;
    DbusHelper::Message m = Changed(factory, [](sd_bus_message* m) {
        Entry(m, "Before", "u", [](sd_bus_message* m) { sd_bus_message_append(m, "u", 1u); });
        Entry(m, "Dict", "a{sv}",
              [](sd_bus_message* m) { sd_bus_message_append(m, "a{sv}", 1, "k", "i", 5); });
        Entry(m, "Struct", "(ii)", [](sd_bus_message* m) { sd_bus_message_append(m, "(ii)", 1, 2); });
        Entry(m, "Nested", "v", [](sd_bus_message* m) { sd_bus_message_append(m, "v", "s", "inner"); });
        Entry(m, "Icons", "(sassas)",
              [](sd_bus_message* m) { sd_bus_message_append(m, "(sassas)", "x", 1, "a", "y", 1, "b"); });
        Entry(m, "OtherStructs", "a(ss)",
              [](sd_bus_message* m) { sd_bus_message_append(m, "a(ss)", 1, "a", "b"); });
        Entry(m, "After", "s", [](sd_bus_message* m) { sd_bus_message_append(m, "s", "still here"); });
    });
    ASSERT_GE(sd_bus_message_skip(m.get(), "s"), 0);

    TypedPropertyMap map;
    ASSERT_EQ(sdbus_utils::ParsePropertiesWithType(m.get(), map), 0);
    EXPECT_EQ(map.size(), 2u);
    EXPECT_EQ(Get<uint32_t>(map, "Before", "u"), 1u);
    EXPECT_EQ(Get<std::string>(map, "After", "s"), "still here");
    EXPECT_EQ(map.count("Dict") + map.count("Struct") + map.count("Nested") + map.count("Icons") +
                  map.count("OtherStructs"),
              0u);
    EXPECT_GE(sd_bus_message_skip(m.get(), "as"), 0);  // the reader is still in step
}

TEST(ParsePropertiesWithType, EntriesAreAddedToWhatTheMapHolds) {
    MessageFactory factory;
    DbusHelper::Message m = Changed(factory, [](sd_bus_message* m) {
        Entry(m, "powered", "b", [](sd_bus_message* m) { sd_bus_message_append(m, "b", 0); });
    });
    ASSERT_GE(sd_bus_message_skip(m.get(), "s"), 0);
    TypedPropertyMap map;
    map["powered"] = {"b", true};
    map["advertSchema"] = {"u", uint32_t{4}};
    ASSERT_EQ(sdbus_utils::ParsePropertiesWithType(m.get(), map), 0);
    EXPECT_EQ(map.size(), 2u);
    EXPECT_FALSE(Get<bool>(map, "powered", "b"));
    EXPECT_EQ(Get<uint32_t>(map, "advertSchema", "u"), 4u);
}

TEST(ParsePropertiesWithType, EmptyDictionaryGivesNoEntries) {
    MessageFactory factory;
    DbusHelper::Message m = Changed(factory, [](sd_bus_message*) {});
    ASSERT_GE(sd_bus_message_skip(m.get(), "s"), 0);
    TypedPropertyMap map;
    EXPECT_EQ(sdbus_utils::ParsePropertiesWithType(m.get(), map), 0);
    EXPECT_TRUE(map.empty());
}

TEST(ParsePropertiesWithType, SomethingElseThanADictionaryIsAnErrorAndChangesNothing) {
    MessageFactory factory;
    DbusHelper::Message m =
        factory.Signal([](sd_bus_message* m) { sd_bus_message_append(m, "ss", "iface", "x"); });
    ASSERT_GE(sd_bus_message_skip(m.get(), "s"), 0);
    TypedPropertyMap map;
    map["kept"] = {"i", int32_t{1}};
    EXPECT_LT(sdbus_utils::ParsePropertiesWithType(m.get(), map), 0);
    EXPECT_EQ(map.size(), 1u);

    // at the end of the body
    DbusHelper::Message empty = factory.Signal([](sd_bus_message*) {});
    EXPECT_LT(sdbus_utils::ParsePropertiesWithType(empty.get(), map), 0);
    EXPECT_LT(sdbus_utils::ParsePropertiesWithType(nullptr, map), 0);
}

TEST(ParseProperties, UntypedMapHoldsTheSameValues) {
    MessageFactory factory;
    DbusHelper::Message m = Changed(factory, [](sd_bus_message* m) {
        Entry(m, "IPAddress", "s", [](sd_bus_message* m) { sd_bus_message_append(m, "s", "10.0.0.5"); });
        Entry(m, "ActivePowerSource", "i", [](sd_bus_message* m) { sd_bus_message_append(m, "i", 2); });
        Entry(m, "Skipped", "a{ss}", [](sd_bus_message* m) { sd_bus_message_append(m, "a{ss}", 0); });
    });
    ASSERT_GE(sd_bus_message_skip(m.get(), "s"), 0);
    sdbus_utils::PropertyMap map;
    ASSERT_EQ(sdbus_utils::ParseProperties(m.get(), map), 0);
    ASSERT_EQ(map.size(), 2u);
    EXPECT_EQ(std::any_cast<std::string>(map.at("IPAddress")), "10.0.0.5");
    EXPECT_EQ(std::any_cast<int32_t>(map.at("ActivePowerSource")), 2);
}

// --------------------------------------------------------------------------------------------------------
// The codecs behind GetProperty/SetProperty: what is appended reads back the same.

template <typename T>
T RoundTrip(const T& value) {
    MessageFactory factory;
    DbusHelper::Message m =
        factory.Signal([&](sd_bus_message* m) { EXPECT_GE(sdbus_utils::Codec<T>::Append(m, value), 0); });
    char type = 0;
    const char* contents = nullptr;
    EXPECT_GT(sd_bus_message_peek_type(m.get(), &type, &contents), 0);
    T out{};
    EXPECT_EQ(sdbus_utils::Codec<T>::Read(m.get(), out), 0);
    return out;
}

TEST(Codec, SignaturesFollowTheCppTypes) {
    EXPECT_EQ(sdbus_utils::Codec<bool>::Signature(), "b");
    EXPECT_EQ(sdbus_utils::Codec<unsigned int>::Signature(), "u");
    EXPECT_EQ(sdbus_utils::Codec<int>::Signature(), "i");
    EXPECT_EQ(sdbus_utils::Codec<uint64_t>::Signature(), "t");
    EXPECT_EQ(sdbus_utils::Codec<int64_t>::Signature(), "x");
    EXPECT_EQ(sdbus_utils::Codec<std::vector<std::string>>::Signature(), "as");
    EXPECT_EQ(sdbus_utils::Codec<std::vector<sdbus_utils::AccessPointTuple>>::Signature(), "a(siib)");
    EXPECT_EQ((sdbus_utils::Codec<std::tuple<std::string, std::vector<std::string>, std::string,
                                             std::vector<std::string>>>::Signature()),
              "(sassas)");
}

TEST(Codec, ValuesReadBackAsAppended) {
    EXPECT_EQ(RoundTrip<bool>(true), true);
    EXPECT_EQ(RoundTrip<uint32_t>(0xFFFFFFFFu), 0xFFFFFFFFu);
    EXPECT_EQ(RoundTrip<int64_t>(std::numeric_limits<int64_t>::min()), std::numeric_limits<int64_t>::min());
    EXPECT_EQ(RoundTrip<uint64_t>(std::numeric_limits<uint64_t>::max()),
              std::numeric_limits<uint64_t>::max());
    EXPECT_EQ(RoundTrip<std::string>("ssid with spaces"), "ssid with spaces");
    EXPECT_EQ(RoundTrip<std::vector<bool>>({true, false}), (std::vector<bool>{true, false}));
    using Icons = std::tuple<std::string, std::vector<std::string>, std::string, std::vector<std::string>>;
    const Icons icons{"battery", {"a", "b"}, "remote", {}};
    EXPECT_EQ(RoundTrip<Icons>(icons), icons);
    const std::vector<sdbus_utils::AccessPointTuple> aps{{"ap", 1, -2, true}};
    EXPECT_EQ(RoundTrip(aps), aps);
}

TEST(Codec, AMismatchedTypeIsAnErrorAndLeavesTheValue) {
    MessageFactory factory;
    DbusHelper::Message m = factory.Signal([](sd_bus_message* m) { sd_bus_message_append(m, "i", 5); });
    std::string text = "unchanged";
    EXPECT_LT(sdbus_utils::Codec<std::string>::Read(m.get(), text), 0);
    EXPECT_EQ(text, "unchanged");
    uint32_t u = 9;
    EXPECT_LT(sdbus_utils::Codec<uint32_t>::Read(m.get(), u), 0);
    EXPECT_EQ(u, 9u);
    std::vector<int32_t> v{1};
    EXPECT_LT(sdbus_utils::Codec<std::vector<int32_t>>::Read(m.get(), v), 0);
    EXPECT_EQ(v, (std::vector<int32_t>{1}));
}

TEST(ErrorText, PrefersTheDbusMessageThenTheErrno) {
    sd_bus_error e = SD_BUS_ERROR_NULL;
    EXPECT_EQ(sdbus_utils::ErrorText(&e, -ENOENT), "No such file or directory");
    sd_bus_error_set(&e, "org.example.Error.Nope", "nope, not here");
    EXPECT_EQ(sdbus_utils::ErrorText(&e, -EIO), "nope, not here");
    sd_bus_error_free(&e);
    EXPECT_EQ(sdbus_utils::ErrorText(nullptr, -ECONNREFUSED), "Connection refused");
}

TEST(ParsePropertiesWithType, EmptyObjectPathAndSignatureArraysAreReadNotFatal) {
    MessageFactory factory;
    DbusHelper::Message m = Changed(factory, [](sd_bus_message* m) {
        Entry(m, "Before", "u", [](sd_bus_message* m) { sd_bus_message_append(m, "u", 7u); });
        Entry(m, "Paths", "ao", [](sd_bus_message* m) { sd_bus_message_append(m, "ao", 0); });
        Entry(m, "Signatures", "ag", [](sd_bus_message* m) { sd_bus_message_append(m, "ag", 0); });
        Entry(m, "After", "s", [](sd_bus_message* m) { sd_bus_message_append(m, "s", "kept"); });
    });
    ASSERT_GE(sd_bus_message_skip(m.get(), "s"), 0);
    TypedPropertyMap map;
    ASSERT_EQ(sdbus_utils::ParsePropertiesWithType(m.get(), map), 0);
    EXPECT_EQ(map.size(), 4u);
    EXPECT_TRUE(Get<std::vector<std::string>>(map, "Paths", "ao").empty());
    EXPECT_TRUE(Get<std::vector<std::string>>(map, "Signatures", "ag").empty());
    EXPECT_EQ(Get<uint32_t>(map, "Before", "u"), 7u);
    EXPECT_EQ(Get<std::string>(map, "After", "s"), "kept");
}

// Every type the parsers read, each array empty and not, and one type they do not read among them.
TEST(ParsePropertiesWithType, EveryRegisteredTypeEmptyAndNotBesideAnUnexpectedOne) {
    MessageFactory factory;
    const uint8_t bytes[] = {1, 2};
    DbusHelper::Message m = Changed(factory, [&](sd_bus_message* m) {
        Entry(m, "s", "s", [](sd_bus_message* m) { sd_bus_message_append(m, "s", "text"); });
        Entry(m, "o", "o", [](sd_bus_message* m) { sd_bus_message_append(m, "o", "/a/b"); });
        Entry(m, "g", "g", [](sd_bus_message* m) { sd_bus_message_append(m, "g", "a{sv}"); });
        Entry(m, "b", "b", [](sd_bus_message* m) { sd_bus_message_append(m, "b", 1); });
        Entry(m, "y", "y", [](sd_bus_message* m) { sd_bus_message_append(m, "y", 200); });
        Entry(m, "n", "n", [](sd_bus_message* m) { sd_bus_message_append(m, "n", -3); });
        Entry(m, "q", "q", [](sd_bus_message* m) { sd_bus_message_append(m, "q", 65535); });
        Entry(m, "i", "i", [](sd_bus_message* m) { sd_bus_message_append(m, "i", -70000); });
        Entry(m, "u", "u", [](sd_bus_message* m) { sd_bus_message_append(m, "u", 70000u); });
        Entry(m, "x", "x", [](sd_bus_message* m) { sd_bus_message_append(m, "x", int64_t{-5000000000}); });
        Entry(m, "t", "t", [](sd_bus_message* m) { sd_bus_message_append(m, "t", uint64_t{5000000000}); });
        Entry(m, "d", "d", [](sd_bus_message* m) { sd_bus_message_append(m, "d", 2.5); });
        Entry(m, "unexpected", "a{ss}",
              [](sd_bus_message* m) { sd_bus_message_append(m, "a{ss}", 1, "k", "v"); });
        Entry(m, "as", "as", [](sd_bus_message* m) { sd_bus_message_append(m, "as", 2, "x", "y"); });
        Entry(m, "ao", "ao", [](sd_bus_message* m) { sd_bus_message_append(m, "ao", 2, "/x", "/y"); });
        Entry(m, "ag", "ag", [](sd_bus_message* m) { sd_bus_message_append(m, "ag", 1, "i"); });
        Entry(m, "ab", "ab", [](sd_bus_message* m) { sd_bus_message_append(m, "ab", 2, 1, 0); });
        Entry(m, "ay", "ay",
              [&](sd_bus_message* m) { sd_bus_message_append_array(m, 'y', bytes, sizeof bytes); });
        Entry(m, "an", "an", [](sd_bus_message* m) { sd_bus_message_append(m, "an", 1, -1); });
        Entry(m, "aq", "aq", [](sd_bus_message* m) { sd_bus_message_append(m, "aq", 1, 1); });
        Entry(m, "ai", "ai", [](sd_bus_message* m) { sd_bus_message_append(m, "ai", 1, -1); });
        Entry(m, "au", "au", [](sd_bus_message* m) { sd_bus_message_append(m, "au", 1, 1u); });
        Entry(m, "ax", "ax", [](sd_bus_message* m) { sd_bus_message_append(m, "ax", 1, int64_t{-1}); });
        Entry(m, "at", "at", [](sd_bus_message* m) { sd_bus_message_append(m, "at", 1, uint64_t{1}); });
        Entry(m, "ad", "ad", [](sd_bus_message* m) { sd_bus_message_append(m, "ad", 1, 0.5); });
        Entry(m, "a(siib)", "a(siib)",
              [](sd_bus_message* m) { sd_bus_message_append(m, "a(siib)", 1, "ap", 1, -50, 1); });
        for (const char* empty :
             {"as", "ao", "ag", "ab", "ay", "an", "aq", "ai", "au", "ax", "at", "ad", "a(siib)"}) {
            const std::string key = std::string("empty ") + empty;
            Entry(m, key.c_str(), empty, [empty](sd_bus_message* m) {
                ASSERT_GE(sd_bus_message_open_container(m, 'a', empty + 1), 0);
                ASSERT_GE(sd_bus_message_close_container(m), 0);
            });
        }
        Entry(m, "last", "u", [](sd_bus_message* m) { sd_bus_message_append(m, "u", 9u); });
    });
    ASSERT_GE(sd_bus_message_skip(m.get(), "s"), 0);

    Logging::Capture capture;
    TypedPropertyMap map;
    ASSERT_EQ(sdbus_utils::ParsePropertiesWithType(m.get(), map), 0);
    EXPECT_EQ(map.count("unexpected"), 0u);
    EXPECT_EQ(map.size(), 12u + 13u + 13u + 1u);
    EXPECT_EQ(Get<std::string>(map, "o", "o"), "/a/b");
    EXPECT_EQ(Get<std::string>(map, "g", "g"), "a{sv}");
    EXPECT_EQ(Get<int64_t>(map, "x", "x"), -5000000000);
    EXPECT_EQ(Get<uint64_t>(map, "t", "t"), 5000000000u);
    EXPECT_EQ(Get<double>(map, "d", "d"), 2.5);
    EXPECT_EQ(Get<std::vector<std::string>>(map, "ao", "ao"), (std::vector<std::string>{"/x", "/y"}));
    EXPECT_EQ(Get<std::vector<std::string>>(map, "ag", "ag"), (std::vector<std::string>{"i"}));
    EXPECT_EQ(Get<std::vector<double>>(map, "ad", "ad"), (std::vector<double>{0.5}));
    EXPECT_EQ(Get<uint32_t>(map, "last", "u"), 9u);
    for (const char* empty : {"as", "ao", "ag"})
        EXPECT_TRUE(Get<std::vector<std::string>>(map, std::string("empty ") + empty, empty).empty())
            << empty;
    EXPECT_TRUE(Get<std::vector<uint8_t>>(map, "empty ay", "ay").empty());
    EXPECT_TRUE(Get<std::vector<int32_t>>(map, "empty ai", "ai").empty());
    // the skipped entry is named once
    EXPECT_EQ(capture.Count("Skipping property unexpected of unexpected type a{ss}", LOG_WARNING), 1u);

    // and only once for the process
    DbusHelper::Message again = Changed(factory, [](sd_bus_message* m) {
        Entry(m, "unexpected", "a{ss}", [](sd_bus_message* m) { sd_bus_message_append(m, "a{ss}", 0); });
    });
    ASSERT_GE(sd_bus_message_skip(again.get(), "s"), 0);
    ASSERT_EQ(sdbus_utils::ParsePropertiesWithType(again.get(), map), 0);
    EXPECT_EQ(capture.Count("Skipping property unexpected of unexpected type a{ss}", LOG_WARNING), 1u);
}
