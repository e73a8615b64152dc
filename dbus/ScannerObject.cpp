#include "dbus/ScannerObject.h"

#include <systemd/sd-bus.h>

#include <cstdint>
#include <utility>

#include "ControllerProperties.h"
#include "controller/BluetoothController.h"
#include "dbus/Names.h"
#include "dbus_helper/Handles.h"
#include "dbus_helper/Vtable.h"
#include "logging/Log.h"
#include "scanned_device/Json.h"

namespace BluetoothDbusObject {

namespace {

// The array is written straight into the message's string: one copy of what may be hundreds of
// kilobytes. Its text is valid UTF-8 by construction (DumpJson replaces what is not), which is what
// sd-bus would otherwise check again, octet by octet.
int AppendJson(sd_bus_message* m, const ScannedDevice::JsonArray& array) {
    char* space = nullptr;
    const int r = sd_bus_message_append_string_space(m, array.Size(), &space);
    if (r < 0)
        return r;
    array.CopyTo(space);
    return r;
}

int GetScannedDevices(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void* userdata,
                      sd_bus_error*) {
    return AppendJson(reply, ControllerOf<Scanner>(userdata)->ScannedDevicesJson());
}

int GetRemoteCameras(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void* userdata,
                     sd_bus_error*) {
    return AppendJson(reply, ControllerOf<Scanner>(userdata)->RemoteCamerasJson());
}

int Scan(sd_bus_message* m, void* userdata, sd_bus_error*) {
    const ScannedDevice::JsonArray devices = ControllerOf<Scanner>(userdata)->ScanNow();
    sd_bus_message* created = nullptr;
    int r = sd_bus_message_new_method_return(m, &created);
    const DbusHelper::Message reply(created);
    if (r >= 0)
        r = AppendJson(reply.get(), devices);
    if (r >= 0)
        r = sd_bus_send(nullptr, reply.get(), nullptr);
    return r;
}

int ReadKelpBle(sd_bus_message* m, void* userdata, sd_bus_error*) {
    ControllerOf<Scanner>(userdata)->StartBleInfoRefresh();
    return sd_bus_reply_method_return(m, "");
}

}  // namespace

Scanner::Scanner(std::shared_ptr<BluetoothController> owner)
    : DbusObject(BluetoothDbus::kObjectPath, BluetoothDbus::kScannerInterface), controller(std::move(owner)) {
    connections.push_back(
        controller->DiscoveredRemoteCamera().connect(sigc::mem_fun(*this, &Scanner::DiscoveredRemoteCamera)));
    connections.push_back(
        controller->NewCameraData().connect(sigc::mem_fun(*this, &Scanner::NewKelpBleData)));
    connections.push_back(
        controller->RemoteCamerasChanged().connect(sigc::mem_fun(*this, &Scanner::RemoteCamerasChanged)));

    using namespace sdbus_utils::vtable;
    constexpr uint64_t kEmitsChange = SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE;
    AddStart(Vtable());
    AddProperty(Vtable(), "AutoScan", "b", &GetFlag<Scanner, &BluetoothController::GetAutoScanEnabled>,
                &SetFlag<Scanner, &BluetoothController::SetAutoScanEnabled>, kEmitsChange);
    // stored as sent, zero and negative values too; the running timer keeps its time
    AddProperty(Vtable(), "AutoScanRateSecs", "i",
                &GetNumber<Scanner, &BluetoothController::GetAutoScanRateSecs>,
                &SetNumber<Scanner, &BluetoothController::SetAutoScanRateSecs>, kEmitsChange);
    AddPropertyReadOnly(Vtable(), "ScannedDevices", "s", &GetScannedDevices, kEmitsChange);
    AddPropertyReadOnly(Vtable(), "RemoteCameras", "s", &GetRemoteCameras, kEmitsChange);
    AddVtableMethod(Vtable(), "Scan", "", "s", &Scan, SD_BUS_VTABLE_UNPRIVILEGED);
    AddVtableMethod(Vtable(), "ReadKelpBle", "", "", &ReadKelpBle, SD_BUS_VTABLE_UNPRIVILEGED);
    AddSignal(Vtable(), "DiscoveredRemoteCamera", "s");
    AddSignal(Vtable(), "NewKelpBleData", "s");
    AddEnd(Vtable());
}

Scanner::~Scanner() {
    for (auto& connection : connections)
        connection.disconnect();
}

void Scanner::DiscoveredRemoteCamera(const std::string& json) {
    (void)EmitSignal("DiscoveredRemoteCamera", "s", json.c_str());
}

void Scanner::NewKelpBleData(const std::string& json) {
    (void)EmitSignal("NewKelpBleData", "s", json.c_str());
}

int Scanner::EmitRemoteCamerasChanged() {
    return EmitPropertiesChanged({"RemoteCameras"});
}

void Scanner::RemoteCamerasChanged() {
    // 0 counts as a failure too, deliberately strict
    if (EmitRemoteCamerasChanged() <= 0)
        Logging::Log(LOG_ERR, "[SCANNER] failed to emit RemoteCams");
}

}  // namespace BluetoothDbusObject
