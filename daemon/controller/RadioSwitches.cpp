// The adapter's switches as clients see them: straight to the radio, not the settings the controller keeps.
#include "backend/Radio.h"
#include "controller/BluetoothController.h"

bool BluetoothController::GetRadioPowered() const {
    return radio && radio->GetPowered();
}

void BluetoothController::SetRadioPowered(bool on) {
    if (radio)
        (void)radio->SetPowered(on);
}

bool BluetoothController::GetRadioPairable() const {
    return radio && radio->GetPairable();
}

void BluetoothController::SetRadioPairable(bool on) {
    if (radio)
        (void)radio->SetPairable(on);
}

bool BluetoothController::GetRadioDiscoverable() const {
    return radio && radio->GetDiscoverable();
}

void BluetoothController::SetRadioDiscoverable(bool on) {
    if (radio)
        (void)radio->SetDiscoverable(on);
}
