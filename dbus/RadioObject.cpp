#include "dbus/RadioObject.h"

#include <systemd/sd-bus.h>

#include <string>
#include <utility>

#include "ControllerProperties.h"
#include "backend/Radio.h"
#include "controller/BluetoothController.h"
#include "dbus/Names.h"
#include "dbus_helper/Vtable.h"
#include "scanned_device/RemoteCamera.h"
#include "vocabulary/Vocabulary.h"

namespace BluetoothDbusObject {

namespace {

using RadioQuery = bool (Backend::RadioInterface::*)();
using RadioSwitch = bool (Backend::RadioInterface::*)(bool);

template <RadioQuery query>
int GetSwitch(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void* userdata,
              sd_bus_error*) {
    const std::shared_ptr<Backend::Radio> radio = ControllerOf<Radio>(userdata)->Radio();
    const int value = radio && ((*radio).*query)() ? 1 : 0;
    return sd_bus_message_append_basic(reply, 'b', &value);
}

template <RadioSwitch change>
int SetSwitch(sd_bus*, const char*, const char*, const char*, sd_bus_message* value, void* userdata,
              sd_bus_error*) {
    int on = 0;
    const int r = sd_bus_message_read_basic(value, 'b', &on);
    if (r < 0)
        return r;
    const std::shared_ptr<Backend::Radio> radio = ControllerOf<Radio>(userdata)->Radio();
    if (radio)
        (void)((*radio).*change)(on != 0);
    return r;
}

int ConfigKelpBle(sd_bus_message* m, void* userdata, sd_bus_error*) {
    const std::shared_ptr<BluetoothController> controller = ControllerOf<Radio>(userdata);
    const char* address = nullptr;
    const int r = sd_bus_message_read_basic(m, 's', &address);
    if (r < 0)
        return sd_bus_reply_method_errorf(m, BluetoothDbus::kErrorReadMessageFailure,
                                          "sd_bus_message_read ret: %d", r);
    // only what the scanner lists at this moment counts
    const std::shared_ptr<ScannedDevice::RemoteCamera> camera = controller->FindRemoteCamera(address);
    if (!camera)
        return sd_bus_reply_method_errorf(m, BluetoothDbus::kErrorDeviceNotFound, "Could not find device: %s",
                                          address);
    if (camera->DeviceType() != kRemoteCameraDeviceType) {
        // a type the table does not know throws "map::at", which the C boundary turns into an error reply
        const std::string& model = DeviceTypeNames.at(camera->DeviceType());
        return sd_bus_reply_method_errorf(m, BluetoothDbus::kErrorDeviceNotAKelpCam, "Device %s is a %s",
                                          address, model.c_str());
    }
    controller->ConfigureRemoteCamera(camera);
    return sd_bus_reply_method_return(m, "");
}

}  // namespace

Radio::Radio(std::shared_ptr<BluetoothController> owner)
    : DbusObject(BluetoothDbus::kObjectPath, BluetoothDbus::kRadioInterface), controller(std::move(owner)) {
    // fired on the loop thread: the controller hands the workers' outcome over before it fires
    configured = controller->ConfiguredCamera().connect(sigc::mem_fun(*this, &Radio::ConfiguredKelpBle));

    using namespace sdbus_utils::vtable;
    constexpr uint64_t kEmitsChange = SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE;
    AddStart(Vtable());
    AddProperty(Vtable(), "Powered", "b", &GetSwitch<&Backend::RadioInterface::GetPowered>,
                &SetSwitch<&Backend::RadioInterface::SetPowered>, kEmitsChange);
    AddProperty(Vtable(), "Pairable", "b", &GetSwitch<&Backend::RadioInterface::GetPairable>,
                &SetSwitch<&Backend::RadioInterface::SetPairable>, kEmitsChange);
    AddProperty(Vtable(), "Discoverable", "b", &GetSwitch<&Backend::RadioInterface::GetDiscoverable>,
                &SetSwitch<&Backend::RadioInterface::SetDiscoverable>, kEmitsChange);
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
