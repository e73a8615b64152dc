#pragma once
// Client-side connections to the user bus, dispatched on an sd-event loop, and signal subscriptions.
//
// A DbusListener subscribes with ListenSignal; each callback runs on the loop's thread behind its own
// exception barrier (CBoundary), so an exception in a handler is logged and never unwinds into sd-bus.
//
// A well-known sender name in a subscription is resolved by the bus daemon each time it routes a signal
// (the sender must own the name at that moment), and sd-bus does not filter well-known senders locally.
// Signals therefore keep arriving when the peer restarts and takes its name again under a new unique
// name; signals sent while the name has no owner are lost.

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "dbus_helper/Handles.h"

namespace DbusHelper {

class DbusConnector {
  public:
    // loop: the sd-event loop that dispatches the connection (null: the connecting thread's default loop).
    explicit DbusConnector(sd_event* loop);
    virtual ~DbusConnector();
    DbusConnector(const DbusConnector&) = delete;
    DbusConnector& operator=(const DbusConnector&) = delete;

    // Opens a fresh user-bus connection and attaches it to the loop. 0, or a negative errno (nothing kept);
    // -EALREADY while connected. The connection then belongs to the loop's thread.
    int Connect();
    // Drops every subscription and closes the connection; harmless when not connected.
    void Disconnect();

    sd_bus* Bus() const { return bus.get(); }
    bool IsConnected() const { return bus != nullptr; }

  protected:
    // Runs before the connection closes, so that subclasses release what lives on it.
    virtual void BeforeDisconnect() {}

  private:
    sd_event* loop;
    DbusHelper::Bus bus;
};

class DbusListener : public DbusConnector {
  public:
    explicit DbusListener(sd_event* loop);
    ~DbusListener() override;

    // Subscribes `callback(message, userdata, error)` to the signal `member` of `interface` sent by `sender`
    // from `path`. An empty text leaves that part open (empty path: any object). 0, or a negative errno;
    // -ENOTCONN before Connect(). The match is installed synchronously, so a broken connection fails here.
    int ListenSignal(const std::string& sender, const std::string& path, const std::string& interface,
                     const std::string& member, sd_bus_message_handler_t callback, void* userdata);

    std::size_t SubscriptionCount() const { return subscriptions.size(); }

  protected:
    void BeforeDisconnect() override;

  private:
    struct Subscription {
        sd_bus_message_handler_t callback = nullptr;
        void* userdata = nullptr;
        std::string where;
        Slot slot;
    };
    static int Trampoline(sd_bus_message* m, void* userdata, sd_bus_error* error);

    std::vector<std::unique_ptr<Subscription>> subscriptions;
};

}  // namespace DbusHelper
