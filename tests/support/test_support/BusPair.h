#pragma once
// Bus-less sd-bus helpers for unit tests: messages built on a started (socketpair) connection, sealed and
// rewound so that they read back like received ones; and a connected pair of peers whose server side
// runs on its own thread.

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-id128.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <thread>

namespace DbusHelperTest {

// A started connection that never talks: sd-bus refuses to build messages on an unstarted one.
class MessageFactory {
  public:
    MessageFactory() {
        int fds[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
        other = fds[1];
        EXPECT_GE(sd_bus_new(&bus), 0);
        EXPECT_GE(sd_bus_set_fd(bus, fds[0], fds[0]), 0);
        EXPECT_GE(sd_bus_start(bus), 0);
    }
    ~MessageFactory() {
        sd_bus_close_unref(bus);
        close(other);
    }
    MessageFactory(const MessageFactory&) = delete;
    MessageFactory& operator=(const MessageFactory&) = delete;

    // A signal on `path` whose body `fill` appends; returned sealed and rewound (caller unrefs).
    sd_bus_message* Signal(const std::function<void(sd_bus_message*)>& fill,
                           const char* path = "/test/object",
                           const char* interface = "org.freedesktop.DBus.Properties",
                           const char* member = "PropertiesChanged") {
        sd_bus_message* m = nullptr;
        EXPECT_GE(sd_bus_message_new_signal(bus, &m, path, interface, member), 0);
        fill(m);
        return Seal(m);
    }
    // A method return (it has no path), sealed and rewound.
    sd_bus_message* Return(const std::function<void(sd_bus_message*)>& fill) {
        sd_bus_message* call = nullptr;
        EXPECT_GE(sd_bus_message_new_method_call(bus, &call, "org.example.Peer", "/x", "org.example.I", "M"),
                  0);
        EXPECT_GE(sd_bus_message_seal(call, ++cookie, 0), 0);
        sd_bus_message* reply = nullptr;
        EXPECT_GE(sd_bus_message_new_method_return(call, &reply), 0);
        sd_bus_message_unref(call);
        fill(reply);
        return Seal(reply);
    }
    sd_bus* Bus() const { return bus; }

  private:
    sd_bus_message* Seal(sd_bus_message* m) {
        EXPECT_GE(sd_bus_message_seal(m, ++cookie, 0), 0);
        EXPECT_GE(sd_bus_message_rewind(m, 1), 0);
        return m;
    }
    sd_bus* bus = nullptr;
    int other = -1;
    uint64_t cookie = 0;
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
            sd_bus* bus = nullptr;
            sd_bus_new(&bus);
            sd_bus_set_fd(bus, fd, fd);
            sd_bus_set_server(bus, 1, id);
            setup(bus);
            setupResult = sd_bus_start(bus);
            ready = true;
            while (!stop) {
                const int r = sd_bus_process(bus, nullptr);
                if (r < 0)
                    break;
                if (r == 0)
                    sd_bus_wait(bus, 20 * 1000);
            }
            sd_bus_flush_close_unref(bus);
        });
        EXPECT_GE(sd_bus_new(&client), 0);
        EXPECT_GE(sd_bus_set_fd(client, fds[1], fds[1]), 0);
        EXPECT_GE(sd_bus_start(client), 0);
        while (!ready)
            std::this_thread::yield();
        EXPECT_GE(setupResult.load(), 0);
    }
    ~PeerPair() {
        sd_bus_flush_close_unref(client);
        stop = true;
        server.join();
    }
    PeerPair(const PeerPair&) = delete;
    PeerPair& operator=(const PeerPair&) = delete;

    sd_bus* Client() const { return client; }

  private:
    sd_bus* client = nullptr;
    std::thread server;
    std::atomic<bool> ready{false};
    std::atomic<bool> stop{false};
    std::atomic<int> setupResult{0};
};

}  // namespace DbusHelperTest
