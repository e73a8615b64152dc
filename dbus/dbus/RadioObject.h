#pragma once
// com.quorbel.common.Bluetooth1.Radio: the local radio's switches, and configuring a scanned remote
// camera ("ConfigKelpBle"), whose outcome comes back as the "ConfiguredKelpBle" signal.

#include <sigc++/sigc++.h>

#include <memory>
#include <string>

#include "dbus_helper/DbusObject.h"

class BluetoothController;

namespace BluetoothDbusObject {

class Radio : public DbusHelper::DbusObject {
  public:
    explicit Radio(std::shared_ptr<BluetoothController> controller);
    ~Radio() override;

    const std::shared_ptr<BluetoothController>& Controller() const { return controller; }

  private:
    void ConfiguredKelpBle(bool success, const std::string& json);

    std::shared_ptr<BluetoothController> controller;
    sigc::connection configured;
};

}  // namespace BluetoothDbusObject
