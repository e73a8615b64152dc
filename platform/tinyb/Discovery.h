#pragma once
// The discovery sessions this process holds on BlueZ's adapters, tracked from the calls' results and from
// what BlueZ reports, so that a stop goes out only for a session this process started.

#include <mutex>
#include <set>
#include <string>

#include "CallPump.h"

namespace tinyb::detail {

class Discovery {
  public:
    explicit Discovery(CallPump& calls) : pump(calls) {}

    // Any thread; blocking. Throw BluetoothException when BlueZ refuses.
    bool Start(const std::string& adapter);
    bool Stop(const std::string& adapter);
    // Any thread.
    bool Running(const std::string& adapter) const;

    // Library thread: BlueZ ended the adapter's session (it was powered off or removed), or all of them.
    void Ended(const std::string& adapter);
    void Clear();

  private:
    CallPump& pump;
    // Serialises the calls of non-library threads, so that two callers never both start.
    std::mutex callMutex;
    // Guards `sessions`; never held across a call.
    mutable std::mutex mutex;
    std::set<std::string> sessions;  // adapter paths
};

}  // namespace tinyb::detail
