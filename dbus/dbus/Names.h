#pragma once
// Where the daemon is found on the bus: its name, its one object path, its three interfaces and the
// errors its methods reply with.

namespace BluetoothDbus {

inline constexpr const char* kBusName = "com.quorbel.common.Bluetooth1";
inline constexpr const char* kObjectPath = "/com/quorbel/common/Bluetooth1";
inline constexpr const char* kRadioInterface = "com.quorbel.common.Bluetooth1.Radio";
inline constexpr const char* kAdvertInterface = "com.quorbel.common.Bluetooth1.Advert";
inline constexpr const char* kScannerInterface = "com.quorbel.common.Bluetooth1.Scanner";

// D-Bus error names may not contain spaces: a reply named "Device Not Found" would make the bus daemon
// drop the whole connection, and with it the daemon's name.
inline constexpr const char* kErrorReadMessageFailure =
    "com.quorbel.common.Bluetooth1.Error.ReadMessageFailure";
inline constexpr const char* kErrorDeviceNotFound = "com.quorbel.common.Bluetooth1.Error.DeviceNotFound";
inline constexpr const char* kErrorDeviceNotAKelpCam =
    "com.quorbel.common.Bluetooth1.Error.DeviceNotAKelpCam";

}  // namespace BluetoothDbus
