#pragma once
// Every failure of the BlueZ client is thrown as a BluetoothException: BlueZ's own errors
// (org.bluez.Error.*), D-Bus failures, time-outs and objects that BlueZ no longer has.

#include <stdexcept>
#include <string>

namespace tinyb {

class BluetoothException : public std::runtime_error {
  public:
    explicit BluetoothException(const std::string& message) : std::runtime_error(message) {}
    // what() is "<error name>: <message>" for a D-Bus error reply.
    BluetoothException(const std::string& errorName, const std::string& message)
        : std::runtime_error(errorName.empty() ? message : errorName + ": " + message), name(errorName) {}

    // The D-Bus error name ("org.bluez.Error.Failed", ...); empty when the failure did not come from a reply.
    const std::string& error_name() const noexcept { return name; }

  private:
    std::string name;
};

}  // namespace tinyb
