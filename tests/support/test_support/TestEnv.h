#pragma once
// What C++ tests use of the hermetic unit that tests/harness/testenv.py brings up: its work folder, the
// HCI stubs' call log, the fake sysfs, calls into the simulated peers, a notify socket, and a private
// identity file.

#include <systemd/sd-bus.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "dbus_helper/Handles.h"

namespace TestSupport {

// True when the test runs inside the harness (TESTENV_DIR is set).
bool InHarness();
std::string HarnessDir();
std::string HciCallLog();         // one line per hcitool/hciconfig call
std::string SysfsBluetoothDir();  // bound on /sys/class/bluetooth inside the namespace
std::vector<std::string> ReadLines(const std::string& path);
void Truncate(const std::string& path);
void WriteFile(const std::string& path, const std::string& text);
// Makes the recording stub of `tool` ("hcitool", "hciconfig") exit with `status` (0 restores success).
void SetStubExitStatus(const std::string& tool, int status);

enum class Bus { System, User };

// A synchronous method call on one of the harness buses, on a connection of its own.
// Returns the sd-bus result; `reply` (when given) receives the reply, which the caller unrefs.
int CallMethod(Bus bus, const char* destination, const char* path, const char* interface, const char* member,
               sd_bus_message** reply, const char* types, ...);
// The same, the reply held by `reply`.
int CallForReply(Bus bus, const char* destination, const char* path, const char* interface,
                 const char* member, DbusHelper::Message& reply, const char* types, ...);

// Polls `condition` every 5 ms until it holds or `timeout` passes.
template <typename Condition>
bool WaitUntil(Condition condition, std::chrono::milliseconds timeout = std::chrono::milliseconds(3000));

// A datagram socket that receives sd_notify() messages; its path goes into NOTIFY_SOCKET.
class NotifySocket {
  public:
    explicit NotifySocket(std::string path);
    ~NotifySocket();
    NotifySocket(const NotifySocket&) = delete;
    NotifySocket& operator=(const NotifySocket&) = delete;
    const std::string& Path() const { return path; }
    // The first message holding the line `line`, or nothing after `timeout`.
    std::optional<std::string> WaitFor(const std::string& line, std::chrono::milliseconds timeout);

  private:
    std::string path;
    int fd = -1;
    std::vector<std::string> seen;
};

// Points the identity library at a private file for the lifetime of the object.
class ScopedIdentity {
  public:
    ScopedIdentity(const std::string& serial, const std::string& model, int radioType);
    ~ScopedIdentity();
    ScopedIdentity(const ScopedIdentity&) = delete;
    ScopedIdentity& operator=(const ScopedIdentity&) = delete;

  private:
    std::string path;
    std::optional<std::string> previous;
};

}  // namespace TestSupport

#include <thread>

template <typename Condition>
bool TestSupport::WaitUntil(Condition condition, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}
