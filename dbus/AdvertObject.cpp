#include "dbus/AdvertObject.h"

#include <systemd/sd-bus.h>

#include <cstdint>
#include <utility>

#include "controller/BluetoothController.h"
#include "dbus/Names.h"
#include "dbus_helper/Vtable.h"

namespace BluetoothDbusObject {

namespace {

// Each call holds the controller for its own length.
std::shared_ptr<BluetoothController> ControllerOf(void* userdata) {
    return DbusHelper::DbusObject::FromUserdata<Advert>(userdata)->Controller();
}

int GetAdvertising(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void* userdata,
                   sd_bus_error*) {
    const int value = ControllerOf(userdata)->GetAdvertisingEnabled() ? 1 : 0;
    return sd_bus_message_append_basic(reply, 'b', &value);
}

int SetAdvertising(sd_bus*, const char*, const char*, const char*, sd_bus_message* value, void* userdata,
                   sd_bus_error*) {
    int on = 0;
    const int r = sd_bus_message_read_basic(value, 'b', &on);
    if (r < 0)
        return r;
    ControllerOf(userdata)->SetAdvertisingEnabled(on != 0);
    return r;
}

int GetAdvertSchema(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void* userdata,
                    sd_bus_error*) {
    const auto schema = static_cast<int32_t>(ControllerOf(userdata)->GetScanResponseVersion());
    return sd_bus_message_append_basic(reply, 'i', &schema);
}

int SetAdvertSchema(sd_bus*, const char*, const char*, const char*, sd_bus_message* value, void* userdata,
                    sd_bus_error*) {
    int32_t schema = 0;
    const int r = sd_bus_message_read_basic(value, 'i', &schema);
    if (r < 0)
        return r;
    // no check here: the controller falls back from what it cannot build
    ControllerOf(userdata)->UpdateScanResponse(static_cast<uint32_t>(schema));
    return r;
}

}  // namespace

Advert::Advert(std::shared_ptr<BluetoothController> owner)
    : DbusObject(BluetoothDbus::kObjectPath, BluetoothDbus::kAdvertInterface), controller(std::move(owner)) {
    using namespace sdbus_utils::vtable;
    AddStart(Vtable());
    AddProperty(Vtable(), "Advertising", "b", &GetAdvertising, &SetAdvertising,
                SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE);
    AddProperty(Vtable(), "AdvertSchema", "i", &GetAdvertSchema, &SetAdvertSchema,
                SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE);
    AddEnd(Vtable());
}

}  // namespace BluetoothDbusObject
