// The remote cameras: finding one the scanner knows, and the work on them that CameraWorkers runs.
#include <utility>

#include "backend/Scanner.h"
#include "controller/BluetoothController.h"
#include "controller/CameraWorkers.h"
#include "scanned_device/RemoteCamera.h"

bool BluetoothController::StopCameraWork(std::chrono::milliseconds grace) {
    return cameraWorkers->Stop(grace);
}

std::mutex& BluetoothController::ScanLock() {
    return cameraWorkers->ScanLock();
}

void BluetoothController::ConfigureRemoteCamera(std::shared_ptr<ScannedDevice::RemoteCamera> camera) {
    cameraWorkers->StartConfiguration(std::move(camera));
}

void BluetoothController::StartBleInfoRefresh() {
    cameraWorkers->StartBleInfoRefresh();
}

std::shared_ptr<ScannedDevice::RemoteCamera> BluetoothController::FindRemoteCamera(
    const std::string& address) const {
    if (!scanner)
        return nullptr;
    for (const auto& device : scanner->Devices()) {
        if (device->Type() != ScannedDevice::kRemoteCameraType)
            continue;
        auto camera = std::dynamic_pointer_cast<ScannedDevice::RemoteCamera>(device);
        if (camera && camera->Mac() == address)
            return camera;
    }
    return nullptr;
}
