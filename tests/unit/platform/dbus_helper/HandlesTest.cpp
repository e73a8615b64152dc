#include "dbus_helper/Handles.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <optional>
#include <string>
#include <type_traits>
#include <utility>

#include "dbus_helper/Call.h"

static_assert(!std::is_copy_constructible_v<DbusHelper::Bus>);
static_assert(std::is_nothrow_move_constructible_v<DbusHelper::Bus>);
static_assert(!std::is_copy_assignable_v<DbusHelper::Message>);
static_assert(std::is_nothrow_move_assignable_v<DbusHelper::Message>);
static_assert(sizeof(DbusHelper::Slot) == sizeof(sd_bus_slot*), "the deleter costs no space");
static_assert(!std::is_copy_constructible_v<DbusHelper::Error>);
static_assert(!std::is_move_constructible_v<DbusHelper::Error>);

TEST(Handles, AnErrorStartsUnsetAndReadsBackWhatSdBusPutThere) {
    DbusHelper::Error error;
    EXPECT_FALSE(error.IsSet());
    EXPECT_EQ(error.Name(), "");
    EXPECT_EQ(error.Message(), "");
    sd_bus_error_set(error.Get(), "org.example.Error.Busy", "try again later");
    EXPECT_TRUE(error.IsSet());
    EXPECT_EQ(error.Name(), "org.example.Error.Busy");
    EXPECT_EQ(error.Message(), "try again later");
}

TEST(Handles, AnEventMovesToItsNewOwner) {
    sd_event* raw = nullptr;
    ASSERT_GE(sd_event_new(&raw), 0);
    DbusHelper::Event first(raw);
    DbusHelper::Event second(std::move(first));
    EXPECT_EQ(first.get(), nullptr);
    EXPECT_EQ(second.get(), raw);
    EXPECT_GE(sd_event_get_state(second.get()), 0);
}

TEST(Handles, AnEventSourceIsDisabledWhenDropped) {
    sd_event* raw = nullptr;
    ASSERT_GE(sd_event_new(&raw), 0);
    DbusHelper::Event loop(raw);
    sd_event_source* source = nullptr;
    ASSERT_GE(sd_event_add_defer(
                  loop.get(), &source, [](sd_event_source*, void*) { return 0; }, nullptr),
              0);
    // a second reference shows what the drop did to the source
    sd_event_source* kept = sd_event_source_ref(source);
    {
        DbusHelper::EventSource owner(source);
        EXPECT_EQ(sd_event_source_get_enabled(kept, nullptr), 1);
    }
    EXPECT_EQ(sd_event_source_get_enabled(kept, nullptr), 0);
    sd_event_source_unref(kept);
}

TEST(CallMethod, NoBusToOpenFailsAtTheOpenStepWithoutBuildingOrReading) {
    const char* old = getenv("DBUS_SESSION_BUS_ADDRESS");
    const std::optional<std::string> saved = old != nullptr ? std::optional<std::string>(old) : std::nullopt;
    setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/qb-unit-test/bus", 1);

    bool built = false;
    bool read = false;
    DbusHelper::CallFailure failure;
    const int r = DbusHelper::CallMethod(
        nullptr, DbusHelper::BusKind::User, "org.example.Peer", "/org/example/Peer", "org.example.Peer",
        "Ping",
        [&built](sd_bus_message*) {
            built = true;
            return 0;
        },
        [&read](sd_bus_message*) {
            read = true;
            return 0;
        },
        failure);

    if (saved)
        setenv("DBUS_SESSION_BUS_ADDRESS", saved->c_str(), 1);
    else
        unsetenv("DBUS_SESSION_BUS_ADDRESS");
    EXPECT_LT(r, 0);
    EXPECT_EQ(failure.step, DbusHelper::CallFailure::Step::Open);
    EXPECT_EQ(failure.result, r);
    EXPECT_EQ(failure.name, "");
    EXPECT_FALSE(failure.message.has_value());
    EXPECT_FALSE(built);
    EXPECT_FALSE(read);
}
