#include "Discovery.h"

#include "Wire.h"

namespace tinyb::detail {

bool Discovery::Running(const std::string& adapter) const {
    std::lock_guard<std::mutex> lock(mutex);
    return sessions.count(adapter) != 0;
}

void Discovery::Ended(const std::string& adapter) {
    std::lock_guard<std::mutex> lock(mutex);
    sessions.erase(adapter);
}

void Discovery::Clear() {
    std::lock_guard<std::mutex> lock(mutex);
    sessions.clear();
}

bool Discovery::Start(const std::string& adapter) {
    std::unique_lock<std::mutex> serial(callMutex, std::defer_lock);
    if (!pump.OnLoopThread())
        serial.lock();
    if (Running(adapter))
        return true;
    try {
        pump.CallVoid(adapter, kIfaceNames[kAdapter], "StartDiscovery");
    } catch (const BluetoothException& e) {
        // BlueZ says this client's discovery already runs: remember it, so that a stop goes out
        if (e.error_name() == "org.bluez.Error.InProgress") {
            std::lock_guard<std::mutex> lock(mutex);
            sessions.insert(adapter);
        }
        throw;
    }
    std::lock_guard<std::mutex> lock(mutex);
    sessions.insert(adapter);
    return true;
}

bool Discovery::Stop(const std::string& adapter) {
    std::unique_lock<std::mutex> serial(callMutex, std::defer_lock);
    if (!pump.OnLoopThread())
        serial.lock();
    if (!Running(adapter))
        return false;
    try {
        pump.CallVoid(adapter, kIfaceNames[kAdapter], "StopDiscovery");
    } catch (const BluetoothException& e) {
        // Whatever BlueZ refused, it holds no session for us that a later stop could end, except when
        // the answer never came.
        if (e.error_name() != "org.freedesktop.DBus.Error.Timeout" &&
            e.error_name() != "org.freedesktop.DBus.Error.NoReply") {
            Ended(adapter);
        }
        throw;
    }
    Ended(adapter);
    return true;
}

}  // namespace tinyb::detail
