#pragma once
// Bus-less sd-bus helpers for unit tests: messages built on a started (socketpair) connection, sealed and
// rewound so that they read back like received ones; and a connected pair of peers whose server side
// runs on its own thread.

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-id128.h>

#include <atomic>
#include <functional>
#include <thread>

#include "test_support/BusKit.h"

namespace DbusHelperTest {

// Builds messages on a connection that never talks.
class MessageFactory {
  public:
    MessageFactory() { EXPECT_GE(quiet.Result(), 0); }

    // A signal on `path` whose body `fill` appends; returned sealed and rewound.
    DbusHelper::Message Signal(const std::function<void(sd_bus_message*)>& fill,
                               const char* path = "/test/object",
                               const char* interface = "org.freedesktop.DBus.Properties",
                               const char* member = "PropertiesChanged") {
        sd_bus_message* m = nullptr;
        EXPECT_GE(sd_bus_message_new_signal(quiet.Get(), &m, path, interface, member), 0);
        DbusHelper::Message signal(m);
        fill(signal.get());
        EXPECT_GE(quiet.SealForReading(signal.get()), 0);
        return signal;
    }
    // A method return (it has no path), sealed and rewound.
    DbusHelper::Message Return(const std::function<void(sd_bus_message*)>& fill) {
        sd_bus_message* m = nullptr;
        EXPECT_GE(
            sd_bus_message_new_method_call(quiet.Get(), &m, "org.example.Peer", "/x", "org.example.I", "M"),
            0);
        DbusHelper::Message call(m);
        EXPECT_GE(sd_bus_message_seal(call.get(), quiet.NextCookie(), 0), 0);
        EXPECT_GE(sd_bus_message_new_method_return(call.get(), &m), 0);
        DbusHelper::Message reply(m);
        fill(reply.get());
        EXPECT_GE(quiet.SealForReading(reply.get()), 0);
        return reply;
    }
    sd_bus* Bus() const { return quiet.Get(); }

  private:
    BusKit::QuietBus quiet;
};

// Two directly connected peers. The server side is set up by `setup` and then processed on its own thread
// until the pair is destroyed; the client side belongs to the test's thread.
class PeerPair {
  public:
    explicit PeerPair(std::function<void(sd_bus*)> setup) {
        int fds[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
        sd_id128_t id;
        EXPECT_GE(sd_id128_randomize(&id), 0);
        server = std::thread([this, fd = fds[0], id, setup] {
            sd_bus* created = nullptr;
            sd_bus_new(&created);
            DbusHelper::Bus bus(created);
            sd_bus_set_fd(created, fd, fd);
            sd_bus_set_server(created, 1, id);
            setup(created);
            setupResult = sd_bus_start(created);
            ready = true;
            while (!stop) {
                const int r = sd_bus_process(created, nullptr);
                if (r < 0)
                    break;
                if (r == 0)
                    sd_bus_wait(created, 20 * 1000);
            }
        });
        sd_bus* created = nullptr;
        EXPECT_GE(sd_bus_new(&created), 0);
        client.reset(created);
        EXPECT_GE(sd_bus_set_fd(created, fds[1], fds[1]), 0);
        EXPECT_GE(sd_bus_start(created), 0);
        while (!ready)
            std::this_thread::yield();
        EXPECT_GE(setupResult.load(), 0);
    }
    ~PeerPair() {
        client.reset();
        stop = true;
        server.join();
    }
    PeerPair(const PeerPair&) = delete;
    PeerPair& operator=(const PeerPair&) = delete;

    sd_bus* Client() const { return client.get(); }

  private:
    DbusHelper::Bus client;
    std::thread server;
    std::atomic<bool> ready{false};
    std::atomic<bool> stop{false};
    std::atomic<int> setupResult{0};
};

}  // namespace DbusHelperTest
