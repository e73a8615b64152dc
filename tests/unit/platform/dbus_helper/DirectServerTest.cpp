// DbusServer on a connection its subclass opens: a direct peer connection, with no bus daemon and so no
// name to own, as the fuzz targets serve the daemon's objects.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>
#include <systemd/sd-id128.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <string>

#include "dbus_helper/DbusServer.h"
#include "dbus_helper/Handles.h"
#include "dbus_helper/Vtable.h"
#include "test_support/BusKit.h"

namespace {

constexpr const char* kPath = "/com/quorbel/test/Direct";
constexpr const char* kIface = "com.quorbel.test.Direct";

class EchoObject : public DbusHelper::DbusObject {
  public:
    EchoObject() : DbusObject(kPath, kIface) {
        namespace vt = sdbus_utils::vtable;
        vt::AddStart(Vtable());
        vt::AddVtableMethod(Vtable(), "Echo", "s", "s", &EchoObject::Reply, SD_BUS_VTABLE_UNPRIVILEGED);
        vt::AddEnd(Vtable());
    }

  private:
    static int Reply(sd_bus_message* m, void*, sd_bus_error*) {
        const char* text = nullptr;
        const int r = sd_bus_message_read(m, "s", &text);
        if (r < 0)
            return r;
        return sd_bus_reply_method_return(m, "s", text);
    }
};

// Serves on the server end of a socket pair, or fails to open with `result`.
class DirectServer : public DbusHelper::DbusServer {
  public:
    DirectServer(sd_event* loop, int serverEnd, int result = 0)
        : DbusServer("com.quorbel.test.Direct", kPath, "direct", false, false, loop),
          fd(serverEnd),
          openResult(result) {}
    int opened = 0;

  protected:
    int OpenBus(sd_bus** connection) override {
        ++opened;
        if (openResult < 0)
            return openResult;
        sd_id128_t id;
        sd_bus* created = nullptr;
        if (sd_id128_randomize(&id) < 0 || sd_bus_new(&created) < 0)
            return -ENOMEM;
        DbusHelper::Bus bus(created);
        sd_bus_set_fd(created, fd, fd);
        sd_bus_set_server(created, 1, id);
        const int r = sd_bus_start(created);
        if (r < 0)
            return r;
        *connection = bus.release();
        return 0;
    }

  private:
    int fd;
    int openResult;
};

class DirectConnection : public ::testing::Test {
  protected:
    void SetUp() override {
        loop = BusKit::NewLoop();
        ASSERT_TRUE(loop);
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    }

    // Runs both ends, never the loop, until `done` or a bound.
    template <typename Done>
    bool Pump(sd_bus* server, sd_bus* client, Done done) {
        for (int round = 0; round < 1000 && !done(); ++round) {
            if (sd_bus_process(server, nullptr) < 0 || sd_bus_process(client, nullptr) < 0)
                return false;
        }
        return done();
    }

    DbusHelper::Event loop;
    int fds[2] = {-1, -1};
};

int OnEchoed(sd_bus_message* m, void* userdata, sd_bus_error*) {
    auto* out = static_cast<std::string*>(userdata);
    const char* text = nullptr;
    if (sd_bus_message_is_method_error(m, nullptr))
        *out = std::string("error ") + sd_bus_message_get_error(m)->name;
    else if (sd_bus_message_read(m, "s", &text) >= 0)
        *out = text;
    return 0;
}

}  // namespace

TEST_F(DirectConnection, StartsWithoutANameAndServesItsObjects) {
    DirectServer server(loop.get(), fds[0]);
    ASSERT_EQ(server.Start(), 0);
    EXPECT_EQ(server.opened, 1);
    ASSERT_NE(server.Bus(), nullptr);
    EXPECT_EQ(sd_bus_is_bus_client(server.Bus()), 0);
    ASSERT_GE(server.AddObject(std::make_shared<EchoObject>()), 0);

    sd_bus* opened = nullptr;
    ASSERT_GE(sd_bus_new(&opened), 0);
    DbusHelper::Bus client(opened);
    ASSERT_GE(sd_bus_set_fd(opened, fds[1], fds[1]), 0);
    ASSERT_GE(sd_bus_start(opened), 0);
    std::string answer;
    ASSERT_GE(sd_bus_call_method_async(opened, nullptr, nullptr, kPath, kIface, "Echo", &OnEchoed, &answer,
                                       "s", "over the pair"),
              0);
    EXPECT_TRUE(Pump(server.Bus(), opened, [&] { return !answer.empty(); }));
    EXPECT_EQ(answer, "over the pair");
}

TEST_F(DirectConnection, AConnectionThatCannotBeOpenedIsStartsResult) {
    DirectServer server(loop.get(), fds[0], -ECONNREFUSED);
    EXPECT_EQ(server.Start(), -ECONNREFUSED);
    EXPECT_FALSE(server.IsStarted());
    EXPECT_EQ(server.AddObject(std::make_shared<EchoObject>()), -ENOTCONN);
    close(fds[0]);
    close(fds[1]);
}
