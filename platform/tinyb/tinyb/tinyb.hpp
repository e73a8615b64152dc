#pragma once
// The project's own BlueZ client over sd-bus (system bus, BlueZ's documented D-Bus API).

#include "tinyb/BluetoothAdapter.hpp"
#include "tinyb/BluetoothDevice.hpp"
#include "tinyb/BluetoothException.hpp"
#include "tinyb/BluetoothGattCharacteristic.hpp"
#include "tinyb/BluetoothGattService.hpp"
#include "tinyb/BluetoothManager.hpp"
