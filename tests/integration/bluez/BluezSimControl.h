#pragma once
// Drives the simulated BlueZ (sim/bluez_sim.py) through its control interface org.bluez.Mock on "/" and
// dbusmock's call log. One system-bus connection of its own; use it from one thread.

#include <systemd/sd-bus.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace BluezSim {

using Bytes = std::vector<uint8_t>;

struct DeviceProps {
    std::optional<std::string> name;
    std::optional<int16_t> rssi;
    std::optional<uint32_t> deviceClass;
    std::map<uint16_t, Bytes> manufacturerData;  // omitted when empty
    bool camera = false;
    // With camera: its initial state ("power", "wifi", "band") and its profile (sim/kelp_camera.py).
    std::map<std::string, std::string> cameraState;
    std::map<std::string, std::variant<uint32_t, std::string>> cameraProfile;
    bool onlyOnDiscovery = false;
};

class Control {
  public:
    Control();
    ~Control();
    Control(const Control&) = delete;
    Control& operator=(const Control&) = delete;

    // Device object path for an address on hci0, as BlueZ names it.
    static std::string DevicePath(const std::string& address, const std::string& adapter = "hci0");

    std::string AddDevice(const std::string& address, const DeviceProps& props,
                          const std::string& adapter = "hci0");
    std::vector<std::string> AddDevices(uint32_t count, const DeviceProps& props);
    void SetName(const std::string& device, const std::string& name);
    void RemoveDevice(const std::string& device);
    void SimulateDisconnect(const std::string& device);
    std::string AddGattService(const std::string& device, const std::string& uuid,
                               const std::vector<std::string>& characteristics);
    // Sends PropertiesChanged(Device1, {}, [property]) from the device, as BlueZ does when a property goes.
    void InvalidateDeviceProperty(const std::string& device, const std::string& property);

    std::string AddAdapter(const std::string& name, const std::string& alias);
    void RemoveAdapter(const std::string& name);
    // mode "apply", "ignore" or "delay"
    void SetSwitchBehaviour(const std::string& property, const std::string& mode, uint32_t delayMs = 0);

    // error empty: delay only; count -1: every call
    void SetMethodBehaviour(const std::string& path, const std::string& method, const std::string& error,
                            const std::string& message = "", uint32_t delayMs = 0, int32_t count = -1);
    void ClearMethodBehaviour(const std::string& path, const std::string& method);
    // The device's Connect turns Connected true without signalling it, as real bluetoothd sometimes does.
    void SetQuietConnect(const std::string& device);

    void SetCameraResponse(const std::string& device, const std::string& command,
                           const std::string& response);
    void CameraNotify(const std::string& device, const Bytes& value);
    std::vector<Bytes> CameraWrites(const std::string& device);

    // dbusmock's call log of one object
    size_t MethodCalls(const std::string& path, const std::string& method);
    void ClearCalls(const std::string& path);

  private:
    sd_bus_message* NewCall(const char* path, const char* interface, const char* member);
    // Sends and returns the reply (caller unrefs); throws std::runtime_error on failure.
    sd_bus_message* Send(sd_bus_message* m);
    void SendVoid(sd_bus_message* m);
    void AppendDeviceProps(sd_bus_message* m, const DeviceProps& props);

    sd_bus* bus = nullptr;
};

}  // namespace BluezSim
