#pragma once
// Driving the simulated sibling daemons from C++ tests: typed SetProp, raw signals from any path, resets.

#include <systemd/sd-bus.h>

#include <cstdarg>
#include <string>

#include "test_support/BusKit.h"
#include "test_support/TestEnv.h"

namespace SimControl {

inline constexpr const char* kSettings = "com.quorbel.common.Settings1";
inline constexpr const char* kNetwork = "com.quorbel.Network1";
inline constexpr const char* kPylon = "com.quorbel.common.Pylon1";
inline constexpr const char* kMock = "org.freedesktop.DBus.Mock";

// Builds and sends one method call on a fresh user-bus connection; `fill` appends the arguments.
template <typename Fill>
int Call(const char* destination, const char* path, const char* interface, const char* member, Fill fill) {
    return BusKit::Call(BusKit::BusKind::User, destination, path, interface, member, fill);
}

// org.freedesktop.DBus.Mock.SetProp(name, <value of `type`>): stores and emits PropertiesChanged.
inline int SetProp(const char* destination, const char* path, const char* name, const char* type, ...) {
    va_list ap;
    va_start(ap, type);
    va_list copy;
    va_copy(copy, ap);
    const int r = Call(destination, path, kMock, "SetProp", [&](sd_bus_message* m) {
        int rr = sd_bus_message_append(m, "s", name);
        if (rr >= 0)
            rr = sd_bus_message_open_container(m, 'v', type);
        if (rr >= 0)
            rr = sd_bus_message_appendv(m, type, copy);
        if (rr >= 0)
            rr = sd_bus_message_close_container(m);
        return rr;
    });
    va_end(copy);
    va_end(ap);
    return r;
}

// PropertiesChanged(interface, {key: <bool value>}, []) sent by the peer `destination` from `fromPath`
// (dbusmock's EmitSignalDetailed, on the peer's object `objectPath`).
inline int EmitBoolChangeFrom(const char* destination, const char* objectPath, const char* fromPath,
                              const char* interface, const char* key, bool value) {
    return Call(destination, objectPath, kMock, "EmitSignalDetailed", [&](sd_bus_message* m) {
        int r = sd_bus_message_append(m, "sss", "org.freedesktop.DBus.Properties", "PropertiesChanged",
                                      "sa{sv}as");
        if (r >= 0)
            r = sd_bus_message_open_container(m, 'a', "v");
        if (r >= 0)
            r = sd_bus_message_append(m, "v", "s", interface);
        if (r >= 0)
            r = sd_bus_message_open_container(m, 'v', "a{sv}");
        if (r >= 0)
            r = sd_bus_message_append(m, "a{sv}", 1, key, "b", value ? 1 : 0);
        if (r >= 0)
            r = sd_bus_message_close_container(m);
        if (r >= 0)
            r = sd_bus_message_append(m, "v", "as", 0);
        if (r >= 0)
            r = sd_bus_message_close_container(m);
        if (r >= 0)
            r = sd_bus_message_append(m, "a{sv}", 1, "path", "s", fromPath);
        return r;
    });
}

// dbusmock's EmitSignal(interface, name, signature, args) with the arguments appended by `fill` as variants.
template <typename Fill>
int EmitSignal(const char* destination, const char* objectPath, const char* interface, const char* name,
               const char* signature, Fill fill) {
    return Call(destination, objectPath, kMock, "EmitSignal", [&](sd_bus_message* m) {
        int r = sd_bus_message_append(m, "sss", interface, name, signature);
        if (r >= 0)
            r = sd_bus_message_open_container(m, 'a', "v");
        if (r >= 0)
            r = fill(m);
        if (r >= 0)
            r = sd_bus_message_close_container(m);
        return r;
    });
}

inline int ResetSettings() {
    return TestSupport::CallMethod(TestSupport::Bus::User, kSettings, "/com/quorbel/common/Settings1",
                                   "com.quorbel.common.Settings1", "ResetToDefaults", nullptr, "b", 1);
}

}  // namespace SimControl
