#pragma once
// com.quorbel.common.Bluetooth1.Scanner: auto-scan on or off and its period, the devices found as JSON,
// a scan on demand, re-reading the remote cameras over GATT, and the announcements of new cameras and of
// new camera data.

#include <sigc++/sigc++.h>

#include <memory>
#include <string>
#include <vector>

#include "dbus_helper/DbusObject.h"

class BluetoothController;

namespace BluetoothDbusObject {

class Scanner : public DbusHelper::DbusObject {
  public:
    explicit Scanner(std::shared_ptr<BluetoothController> controller);
    ~Scanner() override;

    const std::shared_ptr<BluetoothController>& Controller() const { return controller; }

  protected:
    // PropertiesChanged of "RemoteCameras": sd-bus's result (tests replace it).
    virtual int EmitRemoteCamerasChanged();

  private:
    void DiscoveredRemoteCamera(const std::string& json);
    void NewKelpBleData(const std::string& json);
    void RemoteCamerasChanged();

    std::shared_ptr<BluetoothController> controller;
    std::vector<sigc::connection> connections;
};

}  // namespace BluetoothDbusObject
