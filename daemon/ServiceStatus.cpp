#include "daemon/ServiceStatus.h"

#include <systemd/sd-daemon.h>

namespace Daemon {

namespace {
const char* PhaseText(StatusFacts::Phase phase) {
    switch (phase) {
        case StatusFacts::Phase::WaitingForHci0:
            return "Waiting for hci0";
        case StatusFacts::Phase::WaitingForBus:
            return "Waiting for the bus or its name";
        case StatusFacts::Phase::Serving:
            return "Serving";
        case StatusFacts::Phase::NotServed:
            return "Not serving: the D-Bus service failed to start";
        case StatusFacts::Phase::ControllerFailed:
            return "Not serving: controller failed to initialise";
    }
    return "";
}

const char* ScanText(BluetoothController::ScanOutcome outcome) {
    switch (outcome) {
        case BluetoothController::ScanOutcome::None:
            return "no scan yet";
        case BluetoothController::ScanOutcome::Succeeded:
            return "last scan ok";
        case BluetoothController::ScanOutcome::Failed:
            return "last scan failed";
        case BluetoothController::ScanOutcome::Skipped:
            return "last scan skipped, camera busy";
    }
    return "";
}
}  // namespace

std::string StatusText(const StatusFacts& facts) {
    std::string text = PhaseText(facts.phase);
    if (facts.phase == StatusFacts::Phase::WaitingForHci0)
        return text;
    text += facts.advertising ? "; advertising schema " + std::to_string(facts.advertSchema)
                              : "; advertising off";
    text += facts.autoScan ? "; auto-scan every " + std::to_string(facts.autoScanRateSecs) + " s"
                           : "; auto-scan off";
    text += "; " + std::to_string(facts.devicesKnown) + (facts.devicesKnown == 1 ? " device" : " devices") +
            " known";
    text += "; ";
    text += ScanText(facts.lastScan);
    return text;
}

void StatusReporter::Report(const std::string& text) {
    if (text == last)
        return;
    last = text;
    send("STATUS=" + text);
}

StatusReporter& ProcessStatus() {
    // outside systemd there is no NOTIFY_SOCKET and sd_notify() does nothing
    static StatusReporter reporter([](const std::string& message) { (void)sd_notify(0, message.c_str()); });
    return reporter;
}

}  // namespace Daemon
