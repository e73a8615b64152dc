#pragma once
// What tests look at inside the controller, which its users never see: the scan lock a camera worker
// holds, the workers, the camera manager and the backends it made.

#include <memory>
#include <mutex>

#include "controller/BluetoothController.h"
#include "controller/ScanLock.h"

class ControllerProbe {
  public:
    static std::mutex& ScanLock(BluetoothController& controller) { return controller.scanLock->Mutex(); }
    static const std::shared_ptr<CameraWorkers>& Workers(const BluetoothController& controller) {
        return controller.cameraWorkers;
    }
    static const std::shared_ptr<KelpBleManager>& CameraManager(const BluetoothController& controller) {
        return controller.remoteCameraManager;
    }
    static const std::shared_ptr<Backend::Radio>& Radio(const BluetoothController& controller) {
        return controller.radio;
    }
    static const std::shared_ptr<Backend::Scanner>& Scanner(const BluetoothController& controller) {
        return controller.scanner;
    }
};
