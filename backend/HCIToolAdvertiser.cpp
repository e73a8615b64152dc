#include "backend/HCIToolAdvertiser.h"

#include <chrono>
#include <utility>

#include "backend/ShellCommand.h"
#include "bluetooth/HCIToolCommands.h"

namespace Backend {
namespace {

// Non-connectable undirected advertising: the unit is only ever scanned, never connected to.
constexpr uint8_t kAdvertisingType = 0x03;

// Lets the controller finish switching advertising off before anything else is sent to it.
constexpr std::chrono::milliseconds kSettleAfterStop{500};

}  // namespace

HCIToolAdvertiser::HCIToolAdvertiser() : HCIToolAdvertiser(RunThroughShell) {}

HCIToolAdvertiser::HCIToolAdvertiser(CommandRunner commandRunner, Loop::Sleeper sleeper)
    : runner(std::move(commandRunner)), sleep(std::move(sleeper)) {}

int HCIToolAdvertiser::RunCommand(std::string& command) {
    if (!systemCallDebug)
        command += " > /dev/null 2>&1";
    return runner(command.c_str());
}

int HCIToolAdvertiser::StartAdvertising() {
    // No disable first, and nothing is undone on failure: a failing data command leaves the radio
    // advertising whatever it held before.
    std::string parameters = Bluetooth::SetAdvertisingParametersCommand(kAdvertisingType).GetCommand();
    int status = RunCommand(parameters);
    if (status == 0) {
        std::string enable = "hciconfig hci0 leadv";
        status = RunCommand(enable);
    }
    if (status == 0) {
        std::string data = Bluetooth::SetAdvertisingDataCommand().GetCommand();
        status = RunCommand(data);
    }
    if (status != 0) {
        configured = false;
        advertising = false;
        return status;
    }
    if (!scanResponse) {
        configured = true;
        advertising = true;
        return 0;
    }
    std::string response = Bluetooth::SetScanResponseDataCommand(scanResponse.get()).GetCommand();
    status = RunCommand(response);
    configured = (status == 0);
    advertising = (status == 0);
    return status;
}

int HCIToolAdvertiser::StopAdvertising() {
    std::string disable = "hciconfig hci0 noleadv";
    const int status = RunCommand(disable);
    advertising = false;
    sleep(kSettleAfterStop);
    return status;
}

void HCIToolAdvertiser::RefreshScanResponse() {
    if (!scanResponse)
        return;
    Bluetooth::SetScanResponseDataCommand(scanResponse.get()).RefreshPayload();
}

void HCIToolAdvertiser::SetScanResponse(std::shared_ptr<ScanResponse::Base> payload) {
    scanResponse = std::move(payload);
}

}  // namespace Backend
