#pragma once
// Property callbacks that forward to one controller getter or setter, for the objects whose properties
// are the controller's values. The object type gives the user data its type; every object here has
// Controller().

#include <systemd/sd-bus.h>

#include <cstdint>
#include <memory>

#include "controller/BluetoothController.h"
#include "dbus_helper/DbusObject.h"

namespace BluetoothDbusObject {

template <typename Object>
std::shared_ptr<BluetoothController> ControllerOf(void* userdata) {
    // a copy: the call holds the controller for its own length
    return DbusHelper::DbusObject::FromUserdata<Object>(userdata)->Controller();
}

// "b" <-> a controller flag.
template <typename Object, bool (BluetoothController::*get)() const>
int GetFlag(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void* userdata,
            sd_bus_error*) {
    const int value = ((*ControllerOf<Object>(userdata)).*get)() ? 1 : 0;
    return sd_bus_message_append_basic(reply, 'b', &value);
}

// A value that cannot be read returns the read's error and changes nothing.
template <typename Object, void (BluetoothController::*set)(bool)>
int SetFlag(sd_bus*, const char*, const char*, const char*, sd_bus_message* value, void* userdata,
            sd_bus_error*) {
    int on = 0;
    const int r = sd_bus_message_read_basic(value, 'b', &on);
    if (r < 0)
        return r;
    ((*ControllerOf<Object>(userdata)).*set)(on != 0);
    return r;
}

// "i" <-> a controller number kept as uint32: sent and read back as the same 32 bits.
template <typename Object, uint32_t (BluetoothController::*get)() const>
int GetNumber(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void* userdata,
              sd_bus_error*) {
    const auto value = static_cast<int32_t>(((*ControllerOf<Object>(userdata)).*get)());
    return sd_bus_message_append_basic(reply, 'i', &value);
}

template <typename Object, void (BluetoothController::*set)(uint32_t)>
int SetNumber(sd_bus*, const char*, const char*, const char*, sd_bus_message* value, void* userdata,
              sd_bus_error*) {
    int32_t number = 0;
    const int r = sd_bus_message_read_basic(value, 'i', &number);
    if (r < 0)
        return r;
    ((*ControllerOf<Object>(userdata)).*set)(static_cast<uint32_t>(number));
    return r;
}

}  // namespace BluetoothDbusObject
