#include "BluezSimControl.h"

#include <cstring>
#include <stdexcept>
#include <utility>

namespace BluezSim {

namespace {

constexpr const char* kMock = "org.bluez.Mock";
constexpr const char* kDbusMock = "org.freedesktop.DBus.Mock";

void Check(int r, const char* what) {
    if (r < 0)
        throw std::runtime_error(std::string("sim control: ") + what + ": " + std::strerror(-r));
}

}  // namespace

Control::Control() {
    Check(sd_bus_open_system(&bus), "sd_bus_open_system");
}

Control::~Control() {
    sd_bus_flush_close_unref(bus);
}

std::string Control::DevicePath(const std::string& address, const std::string& adapter) {
    std::string path = "/org/bluez/" + adapter + "/dev_" + address;
    for (char& c : path) {
        if (c == ':')
            c = '_';
    }
    return path;
}

sd_bus_message* Control::NewCall(const char* path, const char* interface, const char* member) {
    sd_bus_message* m = nullptr;
    Check(sd_bus_message_new_method_call(bus, &m, "org.bluez", path, interface, member), member);
    return m;
}

sd_bus_message* Control::Send(sd_bus_message* m) {
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    const int r = sd_bus_call(bus, m, 10 * 1000 * 1000, &error, &reply);
    const std::string member = sd_bus_message_get_member(m) ? sd_bus_message_get_member(m) : "?";
    sd_bus_message_unref(m);
    if (r < 0) {
        std::string text =
            "sim control: " + member + ": " + (error.message ? error.message : std::strerror(-r));
        sd_bus_error_free(&error);
        throw std::runtime_error(text);
    }
    return reply;
}

void Control::SendVoid(sd_bus_message* m) {
    sd_bus_message_unref(Send(m));
}

void Control::AppendDeviceProps(sd_bus_message* m, const DeviceProps& props) {
    Check(sd_bus_message_open_container(m, 'a', "{sv}"), "props");
    if (props.name)
        Check(sd_bus_message_append(m, "{sv}", "Name", "s", props.name->c_str()), "Name");
    if (props.rssi)
        Check(sd_bus_message_append(m, "{sv}", "RSSI", "n", *props.rssi), "RSSI");
    if (props.deviceClass)
        Check(sd_bus_message_append(m, "{sv}", "Class", "u", *props.deviceClass), "Class");
    if (!props.manufacturerData.empty()) {
        Check(sd_bus_message_open_container(m, 'e', "sv"), "md");
        Check(sd_bus_message_append(m, "s", "ManufacturerData"), "md");
        Check(sd_bus_message_open_container(m, 'v', "a{qv}"), "md");
        Check(sd_bus_message_open_container(m, 'a', "{qv}"), "md");
        for (const auto& entry : props.manufacturerData) {
            Check(sd_bus_message_open_container(m, 'e', "qv"), "md");
            Check(sd_bus_message_append(m, "q", entry.first), "md");
            Check(sd_bus_message_open_container(m, 'v', "ay"), "md");
            Check(sd_bus_message_append_array(m, 'y', entry.second.data(), entry.second.size()), "md");
            Check(sd_bus_message_close_container(m), "md");
            Check(sd_bus_message_close_container(m), "md");
        }
        Check(sd_bus_message_close_container(m), "md");
        Check(sd_bus_message_close_container(m), "md");
        Check(sd_bus_message_close_container(m), "md");
    }
    if (props.camera)
        Check(sd_bus_message_append(m, "{sv}", "X-Camera", "b", 1), "X-Camera");
    const std::pair<const char*, bool> cameraMaps[] = {{"X-CameraState", !props.cameraState.empty()},
                                                       {"X-Camera-Profile", !props.cameraProfile.empty()}};
    for (const auto& [key, present] : cameraMaps) {
        if (!present)
            continue;
        Check(sd_bus_message_open_container(m, 'e', "sv"), key);
        Check(sd_bus_message_append(m, "s", key), key);
        Check(sd_bus_message_open_container(m, 'v', "a{sv}"), key);
        Check(sd_bus_message_open_container(m, 'a', "{sv}"), key);
        if (std::string(key) == "X-CameraState") {
            for (const auto& [name, value] : props.cameraState)
                Check(sd_bus_message_append(m, "{sv}", name.c_str(), "s", value.c_str()), name.c_str());
        } else {
            for (const auto& [name, value] : props.cameraProfile) {
                if (const auto* number = std::get_if<uint32_t>(&value))
                    Check(sd_bus_message_append(m, "{sv}", name.c_str(), "u", *number), name.c_str());
                else
                    Check(sd_bus_message_append(m, "{sv}", name.c_str(), "s",
                                                std::get<std::string>(value).c_str()),
                          name.c_str());
            }
        }
        for (int level = 0; level < 3; ++level)
            Check(sd_bus_message_close_container(m), key);
    }
    if (props.onlyOnDiscovery)
        Check(sd_bus_message_append(m, "{sv}", "X-OnlyOnDiscovery", "b", 1), "X-Only");
    Check(sd_bus_message_close_container(m), "props");
}

std::string Control::AddDevice(const std::string& address, const DeviceProps& props,
                               const std::string& adapter) {
    sd_bus_message* m = NewCall("/", kMock, "AddLEDevice");
    Check(sd_bus_message_append(m, "ss", adapter.c_str(), address.c_str()), "AddLEDevice");
    AppendDeviceProps(m, props);
    sd_bus_message* reply = Send(m);
    const char* path = nullptr;
    Check(sd_bus_message_read(reply, "o", &path), "AddLEDevice reply");
    std::string result = path;
    sd_bus_message_unref(reply);
    return result;
}

std::vector<std::string> Control::AddDevices(uint32_t count, const DeviceProps& props) {
    sd_bus_message* m = NewCall("/", kMock, "AddLEDevices");
    Check(sd_bus_message_append(m, "su", "hci0", count), "AddLEDevices");
    AppendDeviceProps(m, props);
    sd_bus_message* reply = Send(m);
    std::vector<std::string> paths;
    Check(sd_bus_message_enter_container(reply, 'a', "o"), "AddLEDevices reply");
    const char* path = nullptr;
    while (sd_bus_message_read(reply, "o", &path) > 0)
        paths.emplace_back(path);
    sd_bus_message_unref(reply);
    return paths;
}

void Control::SetName(const std::string& device, const std::string& name) {
    sd_bus_message* m = NewCall("/", kMock, "UpdateDevice");
    Check(sd_bus_message_append(m, "oa{sv}", device.c_str(), 1, "Name", "s", name.c_str()), "UpdateDevice");
    SendVoid(m);
}

void Control::RemoveDevice(const std::string& device) {
    sd_bus_message* m = NewCall("/", kMock, "RemoveLEDevice");
    Check(sd_bus_message_append(m, "o", device.c_str()), "RemoveLEDevice");
    SendVoid(m);
}

void Control::SimulateDisconnect(const std::string& device) {
    sd_bus_message* m = NewCall("/", kMock, "SimulateDisconnect");
    Check(sd_bus_message_append(m, "o", device.c_str()), "SimulateDisconnect");
    SendVoid(m);
}

std::string Control::AddGattService(const std::string& device, const std::string& uuid,
                                    const std::vector<std::string>& characteristics) {
    sd_bus_message* m = NewCall("/", kMock, "AddGattService");
    Check(sd_bus_message_append(m, "os", device.c_str(), uuid.c_str()), "AddGattService");
    Check(sd_bus_message_open_container(m, 'a', "s"), "AddGattService");
    for (const auto& c : characteristics)
        Check(sd_bus_message_append(m, "s", c.c_str()), "AddGattService");
    Check(sd_bus_message_close_container(m), "AddGattService");
    sd_bus_message* reply = Send(m);
    const char* path = nullptr;
    Check(sd_bus_message_read(reply, "o", &path), "AddGattService reply");
    std::string result = path;
    sd_bus_message_unref(reply);
    return result;
}

void Control::InvalidateDeviceProperty(const std::string& device, const std::string& property) {
    sd_bus_message* m = NewCall(device.c_str(), kDbusMock, "EmitSignal");
    Check(sd_bus_message_append(m, "sss", "org.freedesktop.DBus.Properties", "PropertiesChanged", "sa{sv}as"),
          "EmitSignal");
    Check(sd_bus_message_append(m, "av", 3, "s", "org.bluez.Device1", "a{sv}", 0, "as", 1, property.c_str()),
          "EmitSignal");
    SendVoid(m);
}

std::string Control::AddAdapter(const std::string& name, const std::string& alias) {
    sd_bus_message* m = NewCall("/", kMock, "AddAdapter");
    Check(sd_bus_message_append(m, "ss", name.c_str(), alias.c_str()), "AddAdapter");
    sd_bus_message* reply = Send(m);
    const char* path = nullptr;
    Check(sd_bus_message_read(reply, "o", &path), "AddAdapter reply");
    std::string result = path;
    sd_bus_message_unref(reply);
    return result;
}

void Control::RemoveAdapter(const std::string& name) {
    sd_bus_message* m = NewCall("/", kMock, "RemoveAdapter");
    Check(sd_bus_message_append(m, "s", name.c_str()), "RemoveAdapter");
    SendVoid(m);
}

void Control::SetSwitchBehaviour(const std::string& property, const std::string& mode, uint32_t delayMs) {
    sd_bus_message* m = NewCall("/", kMock, "SetSwitchBehaviour");
    Check(sd_bus_message_append(m, "sssu", "hci0", property.c_str(), mode.c_str(), delayMs),
          "SetSwitchBehaviour");
    SendVoid(m);
}

void Control::SetMethodBehaviour(const std::string& path, const std::string& method, const std::string& error,
                                 const std::string& message, uint32_t delayMs, int32_t count) {
    sd_bus_message* m = NewCall("/", kMock, "SetMethodBehaviour");
    Check(sd_bus_message_append(m, "os", path.c_str(), method.c_str()), "SetMethodBehaviour");
    Check(sd_bus_message_open_container(m, 'a', "{sv}"), "SetMethodBehaviour");
    if (!error.empty()) {
        Check(sd_bus_message_append(m, "{sv}", "error", "s", error.c_str()), "error");
        Check(sd_bus_message_append(m, "{sv}", "message", "s", message.c_str()), "message");
        Check(sd_bus_message_append(m, "{sv}", "count", "i", count), "count");
    }
    if (delayMs > 0)
        Check(sd_bus_message_append(m, "{sv}", "delay_ms", "u", delayMs), "delay");
    Check(sd_bus_message_close_container(m), "SetMethodBehaviour");
    SendVoid(m);
}

void Control::ClearMethodBehaviour(const std::string& path, const std::string& method) {
    sd_bus_message* m = NewCall("/", kMock, "SetMethodBehaviour");
    Check(sd_bus_message_append(m, "osa{sv}", path.c_str(), method.c_str(), 0), "SetMethodBehaviour");
    SendVoid(m);
}

void Control::SetQuietConnect(const std::string& device) {
    sd_bus_message* m = NewCall("/", kMock, "SetMethodBehaviour");
    Check(sd_bus_message_append(m, "osa{sv}", device.c_str(), "Connect", 1, "quiet", "b", 1),
          "SetQuietConnect");
    SendVoid(m);
}

void Control::SetCameraResponse(const std::string& device, const std::string& command,
                                const std::string& response) {
    sd_bus_message* m = NewCall("/", kMock, "SetCameraResponse");
    Check(sd_bus_message_append(m, "oss", device.c_str(), command.c_str(), response.c_str()),
          "SetCameraResponse");
    SendVoid(m);
}

void Control::CameraNotify(const std::string& device, const Bytes& value) {
    sd_bus_message* m = NewCall("/", kMock, "CameraNotify");
    Check(sd_bus_message_append(m, "o", device.c_str()), "CameraNotify");
    Check(sd_bus_message_append_array(m, 'y', value.data(), value.size()), "CameraNotify");
    SendVoid(m);
}

std::vector<Bytes> Control::CameraWrites(const std::string& device) {
    sd_bus_message* m = NewCall("/", kMock, "GetCameraWrites");
    Check(sd_bus_message_append(m, "o", device.c_str()), "GetCameraWrites");
    sd_bus_message* reply = Send(m);
    std::vector<Bytes> writes;
    Check(sd_bus_message_enter_container(reply, 'a', "ay"), "GetCameraWrites reply");
    const void* data = nullptr;
    size_t size = 0;
    while (sd_bus_message_read_array(reply, 'y', &data, &size) > 0) {
        const auto* p = static_cast<const uint8_t*>(data);
        writes.emplace_back(p, p + size);
    }
    sd_bus_message_unref(reply);
    return writes;
}

size_t Control::MethodCalls(const std::string& path, const std::string& method) {
    sd_bus_message* m = NewCall(path.c_str(), kDbusMock, "GetMethodCalls");
    Check(sd_bus_message_append(m, "s", method.c_str()), "GetMethodCalls");
    sd_bus_message* reply = Send(m);
    size_t count = 0;
    Check(sd_bus_message_enter_container(reply, 'a', "(tav)"), "GetMethodCalls reply");
    while (sd_bus_message_at_end(reply, 0) == 0) {
        Check(sd_bus_message_skip(reply, "(tav)"), "GetMethodCalls entry");
        ++count;
    }
    sd_bus_message_unref(reply);
    return count;
}

void Control::ClearCalls(const std::string& path) {
    SendVoid(NewCall(path.c_str(), kDbusMock, "ClearCalls"));
}

}  // namespace BluezSim
