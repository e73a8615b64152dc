#pragma once
// The buses and loops of the C++ tests, held by the daemon's own handles: a fresh connection to a harness
// bus, a loop, one method call on a connection of its own (the daemon's call helper), and a started
// connection that never talks, for building messages without a bus daemon. Free of GoogleTest, so that
// the fuzz targets use it too; failures come back as sd-bus results.

#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <memory>
#include <string>

#include "dbus_helper/Call.h"
#include "dbus_helper/Handles.h"

namespace BusKit {

using DbusHelper::BusKind;

// A new connection to the user or system bus; empty when it cannot be opened.
inline DbusHelper::Bus OpenBus(BusKind kind) {
    sd_bus* bus = nullptr;
    const int r = kind == BusKind::System ? sd_bus_open_system(&bus) : sd_bus_open_user(&bus);
    return DbusHelper::Bus(r >= 0 ? bus : nullptr);
}

// A new connection, not yet started; empty when it cannot be made.
inline DbusHelper::Bus NewBus() {
    sd_bus* bus = nullptr;
    return DbusHelper::Bus(sd_bus_new(&bus) >= 0 ? bus : nullptr);
}

// A new event loop (not the thread's default one); empty when it cannot be made.
inline DbusHelper::Event NewLoop() {
    sd_event* loop = nullptr;
    return DbusHelper::Event(sd_event_new(&loop) >= 0 ? loop : nullptr);
}

// destination.path.interface.member on a fresh connection of `kind`, closed again before this returns.
// `append` adds the arguments and `read` reads the reply (either may be empty). The call's result, or the
// negative errno of the step that failed.
inline int Call(BusKind kind, const std::string& destination, const std::string& path,
                const std::string& interface, const std::string& member,
                const DbusHelper::Writer& append = {}, const DbusHelper::Reader& read = {}) {
    DbusHelper::CallFailure failure;
    return DbusHelper::CallMethod(nullptr, kind, destination, path, interface, member, append, read, failure);
}

// A connection on one end of a socketpair whose other end never answers: sd-bus builds and seals messages
// only on a started connection. It is closed without the flush of DbusHelper::Bus, which would wait for
// the authentication that never comes.
class QuietBus {
  public:
    QuietBus() {
        int fds[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) < 0) {
            result = -errno;
            return;
        }
        other = fds[1];
        sd_bus* created = nullptr;
        result = sd_bus_new(&created);
        if (result < 0) {
            close(fds[0]);
            return;
        }
        bus.reset(created);
        result = sd_bus_set_fd(created, fds[0], fds[0]);
        if (result < 0) {
            close(fds[0]);
            return;
        }
        result = sd_bus_start(created);
    }
    ~QuietBus() {
        bus.reset();
        if (other >= 0)
            close(other);
    }
    QuietBus(const QuietBus&) = delete;
    QuietBus& operator=(const QuietBus&) = delete;

    // The first failing step's negative errno, or what sd_bus_start returned.
    int Result() const { return result; }
    sd_bus* Get() const { return bus.get(); }
    uint64_t NextCookie() { return ++cookie; }

    // Seals `m` as if it had been sent and rewinds it, so that it reads back like a received message.
    int SealForReading(sd_bus_message* m) {
        const int r = sd_bus_message_seal(m, NextCookie(), 0);
        return r < 0 ? r : sd_bus_message_rewind(m, 1);
    }

  private:
    std::unique_ptr<sd_bus, SdHandles::detail::Releaser<&sd_bus_close_unref>> bus;
    int other = -1;
    int result = 0;
    uint64_t cookie = 0;
};

}  // namespace BusKit
