#pragma once
// com.quorbel.common.Bluetooth1.Advert: advertising on or off, and the scan-response schema on air.

#include <memory>

#include "dbus_helper/DbusObject.h"

class BluetoothController;

namespace BluetoothDbusObject {

class Advert : public DbusHelper::DbusObject {
  public:
    explicit Advert(std::shared_ptr<BluetoothController> controller);

    const std::shared_ptr<BluetoothController>& Controller() const { return controller; }

  private:
    std::shared_ptr<BluetoothController> controller;
};

}  // namespace BluetoothDbusObject
