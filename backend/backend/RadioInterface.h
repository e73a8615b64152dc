#pragma once
// The daemon's view of the local adapter and of remote devices given by their MAC address. Every result
// is true for success, or for "on" in the getters.

#include <string>

namespace Backend {

class RadioInterface {
  public:
    virtual bool SetPowered(bool on) = 0;
    virtual bool SetPairable(bool on) = 0;
    virtual bool SetDiscoverable(bool on) = 0;
    // Pairs (true) or unpairs (false).
    virtual bool PairDevice(const std::string& mac, bool pair) = 0;
    virtual bool TrustDevice(const std::string& mac, bool trusted) = 0;
    // Connects (true) or disconnects (false).
    virtual bool ConnectDevice(const std::string& mac, bool connect) = 0;
    virtual bool GetPowered() = 0;
    virtual bool GetPairable() = 0;
    virtual bool GetDiscoverable() = 0;

  protected:
    RadioInterface() = default;
    RadioInterface(const RadioInterface&) = default;
    RadioInterface& operator=(const RadioInterface&) = default;
    // Not virtual: implementations are held by std::shared_ptr created with their own type, never deleted
    // through this interface.
    ~RadioInterface() = default;
};

}  // namespace Backend
