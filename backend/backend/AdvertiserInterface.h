#pragma once
// Switches LE advertising on and off. Results are shell statuses: 0 for success.

namespace Backend {

class AdvertiserInterface {
  public:
    // (Re)configures and enables advertising; the status of the last command run.
    virtual int StartAdvertising() = 0;
    // Disables advertising; the status of the command run.
    virtual int StopAdvertising() = 0;

  protected:
    // Not virtual: implementations are owned through shared pointers made with their concrete type.
    ~AdvertiserInterface() = default;
};

}  // namespace Backend
