// The remote cameras: finding one the scanner knows, and the work on them that CameraWorkers runs.
#include <utility>

#include "backend/Scanner.h"
#include "controller/BluetoothController.h"
#include "controller/CameraWorkers.h"
#include "scanned_device/RemoteCamera.h"
#include "vocabulary/Vocabulary.h"

bool BluetoothController::StopCameraWork(std::chrono::milliseconds grace) {
    return cameraWorkers->Stop(grace);
}

void BluetoothController::ConfigureRemoteCamera(std::shared_ptr<ScannedDevice::RemoteCamera> camera) {
    cameraWorkers->StartConfiguration(std::move(camera));
}

void BluetoothController::StartBleInfoRefresh() {
    // the list as it is now, taken here: the workers never read the scanner
    if (scanner)
        cameraWorkers->StartBleInfoRefresh(scanner->Devices());
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

BluetoothController::ConfigurationRequest BluetoothController::RequestConfiguration(
    const std::string& address) {
    // only what the scanner lists at this moment counts
    const std::shared_ptr<ScannedDevice::RemoteCamera> camera = FindRemoteCamera(address);
    if (!camera)
        return {ConfigurationRequest::Outcome::NotFound, {}};
    if (camera->DeviceType() != kRemoteCameraDeviceType) {
        // a type the table does not know throws "map::at", which the caller's C boundary turns into an error
        return {ConfigurationRequest::Outcome::NotACamera, DeviceTypeNames.at(camera->DeviceType())};
    }
    ConfigureRemoteCamera(camera);
    return {ConfigurationRequest::Outcome::Started, {}};
}
