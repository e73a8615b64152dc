// The adapter's switches as clients see them: straight to the radio, not the settings the controller keeps.
#include <cassert>
#include <thread>

#include "backend/Radio.h"
#include "controller/BluetoothController.h"

void BluetoothController::AssertOnLoopThread() const {
    // the BLE library's adapter calls are not made from two threads at once
    assert(std::this_thread::get_id() == loopThread);
}

bool BluetoothController::GetRadioPowered() const {
    AssertOnLoopThread();
    return radio && radio->GetPowered();
}

void BluetoothController::SetRadioPowered(bool on) {
    AssertOnLoopThread();
    if (radio)
        (void)radio->SetPowered(on);
}

bool BluetoothController::GetRadioPairable() const {
    AssertOnLoopThread();
    return radio && radio->GetPairable();
}

void BluetoothController::SetRadioPairable(bool on) {
    AssertOnLoopThread();
    if (radio)
        (void)radio->SetPairable(on);
}

bool BluetoothController::GetRadioDiscoverable() const {
    AssertOnLoopThread();
    return radio && radio->GetDiscoverable();
}

void BluetoothController::SetRadioDiscoverable(bool on) {
    AssertOnLoopThread();
    if (radio)
        (void)radio->SetDiscoverable(on);
}
