#pragma once
// Advertising through the BlueZ command-line tools on hci0: raw HCI LE commands sent with hcitool and
// "hciconfig hci0 leadv" / "noleadv", each run through the shell (RunThroughShell). Holds no connection of
// its own to the Bluetooth stack. Not thread-safe: every call blocks its caller for as long as the commands
// run.

#include <functional>
#include <memory>
#include <string>

#include "backend/Advertiser.h"
#include "loop/Sleep.h"
#include "scan_response/ScanResponse.h"

namespace Backend {

class HCIToolAdvertiser final : public Advertiser {
  public:
    // Runs one shell command line and returns its raw wait status, as system() does (ShellCommand.h).
    using CommandRunner = std::function<int(const char*)>;

    HCIToolAdvertiser();
    // For tests: `runner` takes the place of system(), `sleeper` of the wait after a stop.
    explicit HCIToolAdvertiser(CommandRunner runner, Loop::Sleeper sleeper = Loop::SleepFor);

    // Parameters, "hciconfig hci0 leadv", advertising data, then the scan response when one is attached;
    // stops at the first failing status and returns it.
    int StartAdvertising() override;
    // "hciconfig hci0 noleadv", then 500 ms for the controller to settle; the status of the command.
    int StopAdvertising() override;

    // Makes the attached payload re-read the unit's state. Sends nothing: the bytes go out at the next
    // StartAdvertising().
    void RefreshScanResponse() override;

    // The payload sent as scan response; empty for none. Shared so that it stays alive while attached.
    void SetScanResponse(std::shared_ptr<ScanResponse::Base> payload) override;
    const std::shared_ptr<ScanResponse::Base>& GetScanResponse() const override { return scanResponse; }

    // When true, commands keep their output on the daemon's stdout and stderr.
    void SetSystemCallDebug(bool enabled) override { systemCallDebug = enabled; }
    bool GetSystemCallDebug() const override { return systemCallDebug; }

    // Always true: there is nothing to open, and a missing tool only shows as a failing status.
    bool IsUsable() const override { return true; }
    bool IsConfigured() const override { return configured; }
    bool IsAdvertising() const override { return advertising; }

  private:
    int RunCommand(std::string& command);

    bool configured = false;
    bool advertising = false;
    std::shared_ptr<ScanResponse::Base> scanResponse;
    bool systemCallDebug = false;
    CommandRunner runner;
    Loop::Sleeper sleep;
};

}  // namespace Backend
