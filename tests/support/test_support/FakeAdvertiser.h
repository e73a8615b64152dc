#pragma once
// A Backend::Advertiser that runs no command: records each call as one line ("start", "stop",
// "refresh"), answers with configurable statuses, and sets its flags as HCIToolAdvertiser does: a
// start configures and advertises on status 0 and clears both otherwise; a stop clears advertising only,
// whatever its status. Not thread-safe, like the real one.

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "backend/Advertiser.h"

namespace TestSupport {

class FakeAdvertiser final : public Backend::Advertiser {
  public:
    bool usable = true;
    // Shell statuses of the next calls: 0 for success.
    int startStatus = 0;
    int stopStatus = 0;

    // Every call as one line, in call order.
    std::vector<std::string> calls;
    // When set, every call also goes here as "advertiser <line>": one order across several fakes.
    std::shared_ptr<std::vector<std::string>> journal;

    void Note(std::string line) {
        if (journal)
            journal->push_back("advertiser " + line);
        calls.push_back(std::move(line));
    }

    int StartAdvertising() override {
        Note("start");
        configured = startStatus == 0;
        advertising = startStatus == 0;
        return startStatus;
    }

    int StopAdvertising() override {
        Note("stop");
        advertising = false;
        return stopStatus;
    }

    bool IsUsable() const override { return usable; }
    bool IsConfigured() const override { return configured; }
    bool IsAdvertising() const override { return advertising; }

    void RefreshScanResponse() override { Note("refresh"); }
    void SetScanResponse(std::shared_ptr<ScanResponse::Base> payload) override {
        scanResponse = std::move(payload);
    }
    const std::shared_ptr<ScanResponse::Base>& GetScanResponse() const override { return scanResponse; }

    void SetSystemCallDebug(bool enabled) override { systemCallDebug = enabled; }
    bool GetSystemCallDebug() const override { return systemCallDebug; }

  private:
    bool configured = false;
    bool advertising = false;
    std::shared_ptr<ScanResponse::Base> scanResponse;
    bool systemCallDebug = false;
};

}  // namespace TestSupport
