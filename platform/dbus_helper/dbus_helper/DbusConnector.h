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
#include <functional>
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
    // Connected, and the bus has not closed the connection since (a bus that went away leaves the
    // connection kept but dead: Disconnect() it, then connect again).
    bool IsOpen() const { return bus != nullptr && sd_bus_is_open(bus.get()) > 0; }

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

    // Calls `appeared` each time `name` gets an owner on the bus: a peer that starts, or starts again,
    // after this listener connected. 0, or a negative errno; -ENOTCONN before Connect().
    int ListenNameAppeared(const std::string& name, std::function<void()> appeared);

    std::size_t SubscriptionCount() const { return subscriptions.size(); }

  protected:
    void BeforeDisconnect() override;

  private:
    struct Subscription {
        sd_bus_message_handler_t callback = nullptr;
        void* userdata = nullptr;
        std::string where;
        std::function<void()> appeared;
        Slot slot;
    };
    static int Trampoline(sd_bus_message* m, void* userdata, sd_bus_error* error);
    static int NameOwnerChanged(sd_bus_message* m, void* userdata, sd_bus_error* error);

    std::vector<std::unique_ptr<Subscription>> subscriptions;
};

}  // namespace DbusHelper
