#include "dbus/RadioObject.h"

#include <systemd/sd-bus.h>

#include <string>
#include <utility>

#include "ControllerProperties.h"
#include "controller/BluetoothController.h"
#include "dbus/Names.h"
#include "dbus_helper/Vtable.h"

namespace BluetoothDbusObject {

namespace {

using Outcome = BluetoothController::ConfigurationRequest::Outcome;

int ConfigKelpBle(sd_bus_message* m, void* userdata, sd_bus_error*) {
    const char* address = nullptr;
    const int r = sd_bus_message_read_basic(m, 's', &address);
    if (r < 0)
        return sd_bus_reply_method_errorf(m, BluetoothDbus::kErrorReadMessageFailure,
                                          "sd_bus_message_read ret: %d", r);
    const auto request = ControllerOf<Radio>(userdata)->RequestConfiguration(address);
    if (request.outcome == Outcome::NotFound)
        return sd_bus_reply_method_errorf(m, BluetoothDbus::kErrorDeviceNotFound, "Could not find device: %s",
                                          address);
    if (request.outcome == Outcome::NotACamera)
        return sd_bus_reply_method_errorf(m, BluetoothDbus::kErrorDeviceNotAKelpCam, "Device %s is a %s",
                                          address, request.model.c_str());
    return sd_bus_reply_method_return(m, "");
}

}  // namespace

Radio::Radio(std::shared_ptr<BluetoothController> owner)
    : DbusObject(BluetoothDbus::kObjectPath, BluetoothDbus::kRadioInterface), controller(std::move(owner)) {
    configured = controller->ConfiguredCamera().connect(sigc::mem_fun(*this, &Radio::ConfiguredKelpBle));

    using namespace sdbus_utils::vtable;
    constexpr uint64_t kEmitsChange = SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE;
    AddStart(Vtable());
    AddProperty(Vtable(), "Powered", "b", &GetFlag<Radio, &BluetoothController::GetRadioPowered>,
                &SetFlag<Radio, &BluetoothController::SetRadioPowered>, kEmitsChange);
    AddProperty(Vtable(), "Pairable", "b", &GetFlag<Radio, &BluetoothController::GetRadioPairable>,
                &SetFlag<Radio, &BluetoothController::SetRadioPairable>, kEmitsChange);
    AddProperty(Vtable(), "Discoverable", "b", &GetFlag<Radio, &BluetoothController::GetRadioDiscoverable>,
                &SetFlag<Radio, &BluetoothController::SetRadioDiscoverable>, kEmitsChange);
    AddVtableMethod(Vtable(), "ConfigKelpBle", "s", "", &ConfigKelpBle, SD_BUS_VTABLE_UNPRIVILEGED);
    AddSignal(Vtable(), "ConfiguredKelpBle", "(bs)");
    AddEnd(Vtable());
}

Radio::~Radio() {
    configured.disconnect();
}

void Radio::ConfiguredKelpBle(bool success, const std::string& json) {
    const int flag = success ? 1 : 0;
    (void)EmitSignal("ConfiguredKelpBle", "(bs)", flag, json.c_str());
}

}  // namespace BluetoothDbusObject
