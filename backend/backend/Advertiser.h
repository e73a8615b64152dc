#pragma once
// The advertiser as its owners hold it: switching advertising on and off (AdvertiserInterface), what it
// last achieved, the scan-response payload it sends, and whether its commands keep their output.

#include <memory>

#include "backend/AdvertiserInterface.h"

namespace ScanResponse {
class Base;
}

namespace Backend {

class Advertiser : public AdvertiserInterface {
  public:
    virtual bool IsUsable() const = 0;
    // Whether the last StartAdvertising() went through completely.
    virtual bool IsConfigured() const = 0;
    // Set by a complete StartAdvertising(), cleared by a failed one and by StopAdvertising().
    virtual bool IsAdvertising() const = 0;

    // Makes the attached payload re-read the unit's state; the bytes go out at the next StartAdvertising().
    virtual void RefreshScanResponse() = 0;
    // The payload sent as scan response; empty for none. Shared so that it stays alive while attached.
    virtual void SetScanResponse(std::shared_ptr<ScanResponse::Base> payload) = 0;
    virtual const std::shared_ptr<ScanResponse::Base>& GetScanResponse() const = 0;

    // When true, commands keep their output on the daemon's stdout and stderr.
    virtual void SetSystemCallDebug(bool enabled) = 0;
    virtual bool GetSystemCallDebug() const = 0;

  protected:
    Advertiser() = default;
    Advertiser(const Advertiser&) = default;
    Advertiser& operator=(const Advertiser&) = default;
    // Not virtual, as in AdvertiserInterface: implementations are owned through shared pointers made with
    // their concrete type.
    ~Advertiser() = default;
};

}  // namespace Backend
