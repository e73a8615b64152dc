#pragma once
// The one line systemd shows for the service (STATUS=, in "systemctl status"): where start-up stands,
// what goes on air, the auto-scan period, the devices known and the last scan's outcome. Composed after
// every loop iteration that dispatched something and sent only when its text changed, so an auto-scan
// period that changes nothing costs a string and a compare. Loop thread only.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "controller/BluetoothController.h"

namespace Daemon {

struct StatusFacts {
    enum class Phase { WaitingForHci0, WaitingForBus, Serving, NotServed, ControllerFailed };

    Phase phase = Phase::Serving;
    bool advertising = false;
    uint32_t advertSchema = 0;
    bool autoScan = false;
    uint32_t autoScanRateSecs = 0;
    std::size_t devicesKnown = 0;
    BluetoothController::ScanOutcome lastScan = BluetoothController::ScanOutcome::None;
};

// The text after "STATUS=". Before the controller exists only the phase is known: WaitingForHci0 is
// the phase alone.
std::string StatusText(const StatusFacts& facts);

class StatusReporter {
  public:
    // Gets the whole notification, "STATUS=...".
    using Sender = std::function<void(const std::string&)>;

    explicit StatusReporter(Sender sender) : send(std::move(sender)) {}

    // Sends the text unless it is the one sent last.
    void Report(const std::string& text);

  private:
    Sender send;
    std::string last;
};

// The process's reporter, sending through sd_notify().
StatusReporter& ProcessStatus();

}  // namespace Daemon
