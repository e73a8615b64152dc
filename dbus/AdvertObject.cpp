#include "dbus/AdvertObject.h"

#include <systemd/sd-bus.h>

#include <cstdint>
#include <utility>

#include "ControllerProperties.h"
#include "controller/BluetoothController.h"
#include "dbus/Names.h"
#include "dbus_helper/Vtable.h"

namespace BluetoothDbusObject {

Advert::Advert(std::shared_ptr<BluetoothController> owner)
    : DbusObject(BluetoothDbus::kObjectPath, BluetoothDbus::kAdvertInterface), controller(std::move(owner)) {
    using namespace sdbus_utils::vtable;
    AddStart(Vtable());
    constexpr uint64_t kEmitsChange = SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE;
    AddProperty(Vtable(), "Advertising", "b", &GetFlag<Advert, &BluetoothController::GetAdvertisingEnabled>,
                &SetFlag<Advert, &BluetoothController::SetAdvertisingEnabled>, kEmitsChange);
    // the schema is not checked here: the controller falls back from what it cannot build
    AddProperty(Vtable(), "AdvertSchema", "i",
                &GetNumber<Advert, &BluetoothController::GetScanResponseVersion>,
                &SetNumber<Advert, &BluetoothController::UpdateScanResponse>, kEmitsChange);
    AddEnd(Vtable());
}

}  // namespace BluetoothDbusObject
