// DbusServer and DbusObject on the unit's private user bus, called from other connections.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include "dbus_helper/DbusConnector.h"
#include "dbus_helper/DbusServer.h"
#include "dbus_helper/SdbusUtils.h"
#include "dbus_helper/Vtable.h"
#include "logging/Log.h"
#include "test_support/BusKit.h"
#include "test_support/LoopHelpers.h"
#include "test_support/TestEnv.h"

using BusTest::LoopThread;
using TestSupport::Bus;

namespace {

constexpr const char* kName = "com.quorbel.test.Counter1";
constexpr const char* kPath = "/com/quorbel/test/Counter1";
constexpr const char* kIface = "com.quorbel.test.Counter1.Counter";

class Counter : public DbusHelper::DbusObject {
  public:
    Counter() : DbusObject(kPath, kIface) {
        namespace vt = sdbus_utils::vtable;
        vt::AddStart(Vtable());
        vt::AddProperty(Vtable(), "Count", "i", &Counter::GetCount, &Counter::SetCount,
                        SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE);
        vt::AddPropertyReadOnly(Vtable(), "Label", "s", &Counter::GetLabel,
                                SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE);
        vt::AddPropertyReadOnly(Vtable(), "Broken", "s", &Counter::GetBroken);
        vt::AddVtableMethod(Vtable(), "Add", "i", "i", &Counter::Add, SD_BUS_VTABLE_UNPRIVILEGED);
        vt::AddVtableMethod(Vtable(), "Explode", "", "", &Counter::Explode, SD_BUS_VTABLE_UNPRIVILEGED);
        vt::AddSignal(Vtable(), "Added", "i");
        vt::AddEnd(Vtable());
    }
    int32_t count = 0;    // loop thread only
    bool broken = false;  // makes the Broken getter throw; loop thread only

  private:
    static int GetCount(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void* userdata,
                        sd_bus_error*) {
        return sd_bus_message_append(reply, "i", FromUserdata<Counter>(userdata)->count);
    }
    static int SetCount(sd_bus*, const char*, const char*, const char*, sd_bus_message* value, void* userdata,
                        sd_bus_error*) {
        int32_t v = 0;
        const int r = sd_bus_message_read(value, "i", &v);
        if (r < 0)
            return r;
        FromUserdata<Counter>(userdata)->count = v;
        return r;
    }
    static int GetLabel(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void*,
                        sd_bus_error*) {
        return sd_bus_message_append(reply, "s", "counter");
    }
    static int GetBroken(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply,
                         void* userdata, sd_bus_error*) {
        if (FromUserdata<Counter>(userdata)->broken)
            throw std::out_of_range("map::at");
        return sd_bus_message_append(reply, "s", "fine");
    }
    static int Add(sd_bus_message* m, void* userdata, sd_bus_error*) {
        auto* self = FromUserdata<Counter>(userdata);
        int32_t step = 0;
        const int r = sd_bus_message_read(m, "i", &step);
        if (r < 0)
            return r;
        self->count += step;
        self->EmitSignal("Added", "i", self->count);
        return sd_bus_reply_method_return(m, "i", self->count);
    }
    static int Explode(sd_bus_message*, void*, sd_bus_error*) { throw std::runtime_error("boom"); }
};

// Runs a shell command; its exit status and what it printed.
std::pair<int, std::string> Shell(const std::string& command) {
    std::string out;
    FILE* pipe = popen((command + " 2>&1").c_str(), "r");
    if (pipe == nullptr)
        return {-1, out};
    char buffer[512];
    size_t n = 0;
    while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0)
        out.append(buffer, n);
    const int status = pclose(pipe);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, out};
}

bool NameHasOwner(Bus bus, const char* name) {
    DbusHelper::Message reply;
    if (TestSupport::CallForReply(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                  "org.freedesktop.DBus", "NameHasOwner", reply, "s", name) < 0)
        return false;
    int has = 0;
    sd_bus_message_read(reply.get(), "b", &has);
    return has != 0;
}

// A started server with one Counter, living on its own loop thread.
struct Served {
    LoopThread thread;
    std::unique_ptr<DbusHelper::DbusServer> server;
    std::shared_ptr<Counter> counter;
    int startResult = 0;
    int addResult = 0;

    explicit Served(bool objectManager = false, const char* root = kPath) {
        thread.Run([&] {
            server = std::make_unique<DbusHelper::DbusServer>(kName, root, kName, false, objectManager,
                                                              thread.Loop());
            startResult = server->Start();
            counter = std::make_shared<Counter>();
            addResult = server->AddObject(counter);
        });
    }
    ~Served() {
        thread.Run([&] {
            counter.reset();
            server.reset();
        });
    }
};

}  // namespace

TEST(DbusServer, StartOwnsTheNameOnTheUserBusOnly) {
    ASSERT_TRUE(TestSupport::InHarness());
    EXPECT_FALSE(NameHasOwner(Bus::User, kName));
    {
        Served served;
        ASSERT_EQ(served.startResult, 0);
        EXPECT_GE(served.addResult, 0);
        EXPECT_TRUE(NameHasOwner(Bus::User, kName));
        EXPECT_FALSE(NameHasOwner(Bus::System, kName));
    }
    // released with the server
    EXPECT_FALSE(NameHasOwner(Bus::User, kName));
}

TEST(DbusServer, NothingTouchesTheBusBeforeStart) {
    LoopThread thread;
    thread.Run([&] {
        DbusHelper::DbusServer server(kName, kPath, kName, false, false, thread.Loop());
        EXPECT_EQ(server.Bus(), nullptr);
        EXPECT_FALSE(NameHasOwner(Bus::User, kName));
        EXPECT_EQ(server.AddObject(std::make_shared<Counter>()), -ENOTCONN);
    });
}

TEST(DbusServer, ANameOwnedElsewhereMakesStartFail) {
    Served first;
    ASSERT_EQ(first.startResult, 0);
    LoopThread thread;
    thread.Run([&] {
        DbusHelper::DbusServer second(kName, kPath, kName, false, false, thread.Loop());
        EXPECT_EQ(second.Start(), -EEXIST);
        EXPECT_EQ(second.Bus(), nullptr);
    });
    EXPECT_TRUE(NameHasOwner(Bus::User, kName));
}

TEST(DbusServer, QueuedForANameOwnedElsewhereItIsHandedOverWhenTheOwnerLeaves) {
    auto first = std::make_unique<Served>();
    ASSERT_EQ(first->startResult, 0);
    LoopThread thread;
    std::atomic<int> acquired{0};
    std::unique_ptr<DbusHelper::DbusServer> second;
    thread.Run([&] {
        second = std::make_unique<DbusHelper::DbusServer>(kName, kPath, kName, false, false, thread.Loop());
        second->QueueForName([&] { ++acquired; });
        EXPECT_EQ(second->Start(), 0);
        EXPECT_NE(second->Bus(), nullptr);
        EXPECT_FALSE(second->OwnsName());
    });
    EXPECT_EQ(acquired.load(), 0);
    first.reset();
    for (int i = 0; i < 500 && acquired.load() == 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(acquired.load(), 1);
    EXPECT_TRUE(thread.Run([&] { return second->OwnsName(); }));
    EXPECT_TRUE(NameHasOwner(Bus::User, kName));
    thread.Run([&] { second.reset(); });
    EXPECT_FALSE(NameHasOwner(Bus::User, kName));
}

TEST(DbusServer, QueuedForAFreeNameItOwnsItAtOnceAndIsToldNothing) {
    LoopThread thread;
    std::atomic<int> acquired{0};
    std::unique_ptr<DbusHelper::DbusServer> server;
    thread.Run([&] {
        server = std::make_unique<DbusHelper::DbusServer>(kName, kPath, kName, false, false, thread.Loop());
        server->QueueForName([&] { ++acquired; });
        EXPECT_EQ(server->Start(), 0);
        EXPECT_TRUE(server->OwnsName());
    });
    EXPECT_TRUE(NameHasOwner(Bus::User, kName));
    // the bus confirms the request with a NameAcquired of its own: time for the loop to dispatch it
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(acquired.load(), 0);
    thread.Run([&] { server.reset(); });
}

TEST(DbusServer, ObjectServesPropertiesAndMethodsToAnotherConnection) {
    Served served;
    ASSERT_EQ(served.startResult, 0);
    std::string error;
    int32_t count = -1;
    ASSERT_EQ(sdbus_utils::GetProperty(nullptr, kName, kPath, kIface, "Count", count, error), 0) << error;
    EXPECT_EQ(count, 0);
    ASSERT_EQ(sdbus_utils::SetProperty(nullptr, kName, kPath, kIface, "Count", int32_t{40}, error), 0)
        << error;
    EXPECT_EQ(served.thread.Run([&] { return served.counter->count; }), 40);
    DbusHelper::Message reply;
    ASSERT_GE(TestSupport::CallForReply(Bus::User, kName, kPath, kIface, "Add", reply, "i", 2), 0);
    int32_t sum = 0;
    ASSERT_GE(sd_bus_message_read(reply.get(), "i", &sum), 0);
    EXPECT_EQ(sum, 42);
    std::string label;
    ASSERT_EQ(sdbus_utils::GetProperty(nullptr, kName, kPath, kIface, "Label", label, error), 0) << error;
    EXPECT_EQ(label, "counter");
    // read-only stays read-only
    EXPECT_LT(sdbus_utils::SetProperty(nullptr, kName, kPath, kIface, "Label", std::string("x"), error), 0);
    // a wrongly typed write is refused by the setter's read and changes nothing
    EXPECT_LT(sdbus_utils::SetProperty(nullptr, kName, kPath, kIface, "Count", std::string("x"), error), 0);
    EXPECT_EQ(served.thread.Run([&] { return served.counter->count; }), 42);
}

TEST(DbusServer, BusctlSeesPropertiesMethodAndSignal) {
    ASSERT_TRUE(TestSupport::InHarness());
    Served served;
    ASSERT_GE(served.startResult, 0);
    const std::string target = std::string(kName) + " " + kPath + " " + kIface;

    auto r = Shell(std::string("busctl --user call ") + target + " Add i 5");
    EXPECT_EQ(r.first, 0) << r.second;
    EXPECT_EQ(r.second, "i 5\n");

    r = Shell(std::string("busctl --user set-property ") + target + " Count i 42");
    EXPECT_EQ(r.first, 0) << r.second;
    r = Shell(std::string("busctl --user get-property ") + target + " Count");
    EXPECT_EQ(r.second, "i 42\n");
    r = Shell(std::string("busctl --user get-property ") + target + " Label");
    EXPECT_EQ(r.second, "s \"counter\"\n");

    // Read-only stays read-only.
    r = Shell(std::string("busctl --user set-property ") + target + " Label s other");
    EXPECT_NE(r.first, 0);

    r = Shell(std::string("busctl --user introspect --no-pager ") + kName + " " + kPath + " " + kIface);
    EXPECT_EQ(r.first, 0) << r.second;
    EXPECT_NE(r.second.find(".Added"), std::string::npos) << r.second;
    EXPECT_NE(r.second.find("signal"), std::string::npos) << r.second;
    EXPECT_NE(r.second.find(".Add "), std::string::npos) << r.second;
    EXPECT_EQ(served.thread.Run([&] { return served.counter->count; }), 42);
}

TEST(DbusServer, SignalsReachAListenerOnAnotherConnection) {
    Served served;
    ASSERT_EQ(served.startResult, 0);
    const auto owned = BusKit::NewLoop();
    ASSERT_TRUE(owned);
    sd_event* loop = owned.get();
    {
        DbusHelper::DbusListener listener(loop);
        ASSERT_EQ(listener.Connect(), 0);
        std::vector<int32_t> seen;
        ASSERT_EQ(listener.ListenSignal(
                      kName, kPath, kIface, "Added",
                      [](sd_bus_message* m, void* userdata, sd_bus_error*) {
                          int32_t v = 0;
                          const int r = sd_bus_message_read(m, "i", &v);
                          if (r < 0)
                              return r;
                          static_cast<std::vector<int32_t>*>(userdata)->push_back(v);
                          return 0;
                      },
                      &seen),
                  0);
        ASSERT_GE(TestSupport::CallMethod(Bus::User, kName, kPath, kIface, "Add", nullptr, "i", 5), 0);
        ASSERT_TRUE(BusTest::PumpUntil(loop, [&] { return !seen.empty(); }));
        EXPECT_EQ(seen, std::vector<int32_t>{5});
    }
}

TEST(DbusServer, ExceptionsInCallbacksBecomeErrorRepliesAndLogLines) {
    Served served;
    ASSERT_EQ(served.startResult, 0);
    served.thread.Run([&] { served.counter->broken = true; });
    Logging::Capture capture;
    std::string errorText;
    {
        const auto bus = BusKit::OpenBus(BusKit::BusKind::User);
        ASSERT_TRUE(bus);
        DbusHelper::Error error;
        EXPECT_LT(sd_bus_call_method(bus.get(), kName, kPath, kIface, "Explode", error.Get(), nullptr, ""),
                  0);
        EXPECT_TRUE(error.IsSet());
        std::string text;
        EXPECT_EQ(sdbus_utils::GetProperty(bus.get(), kName, kPath, kIface, "Broken", text, errorText),
                  -ERANGE);
    }
    EXPECT_TRUE(capture.Contains(
        std::string(kIface) + " method call: exception stopped at the C boundary: boom", LOG_ERR));
    EXPECT_TRUE(capture.Contains(
        std::string(kIface) + " property get: exception stopped at the C boundary: map::at", LOG_ERR));
    // and the service is still there
    int32_t count = -1;
    EXPECT_EQ(sdbus_utils::GetProperty(nullptr, kName, kPath, kIface, "Count", count, errorText), 0);
}

namespace {
// Object paths and interface names of GetManagedObjects at `path`, as "path:iface;iface;" text.
int ManagedObjects(const char* path, std::string& text) {
    DbusHelper::Message kept;
    const int r = TestSupport::CallForReply(Bus::User, kName, path, "org.freedesktop.DBus.ObjectManager",
                                            "GetManagedObjects", kept, "");
    if (r < 0)
        return r;
    sd_bus_message* const reply = kept.get();
    sd_bus_message_enter_container(reply, 'a', "{oa{sa{sv}}}");
    while (sd_bus_message_enter_container(reply, 'e', "oa{sa{sv}}") > 0) {
        const char* object = nullptr;
        sd_bus_message_read(reply, "o", &object);
        text += std::string(object) + ":";
        sd_bus_message_enter_container(reply, 'a', "{sa{sv}}");
        while (sd_bus_message_enter_container(reply, 'e', "sa{sv}") > 0) {
            const char* iface = nullptr;
            sd_bus_message_read(reply, "s", &iface);
            text += std::string(iface) + ";";
            sd_bus_message_skip(reply, "a{sv}");
            sd_bus_message_exit_container(reply);
        }
        sd_bus_message_exit_container(reply);
        sd_bus_message_exit_container(reply);
    }
    return r;
}
}  // namespace

TEST(DbusServer, ObjectManagerOnlyWhenAsked) {
    {
        Served plain(false, "/com/quorbel/test");
        std::string text;
        EXPECT_LT(ManagedObjects("/com/quorbel/test", text), 0);
    }
    {
        Served withManager(true, "/com/quorbel/test");
        std::string text;
        ASSERT_GE(ManagedObjects("/com/quorbel/test", text), 0);
        EXPECT_EQ(text, std::string(kPath) +
                            ":org.freedesktop.DBus.Peer;org.freedesktop.DBus.Introspectable;"
                            "org.freedesktop.DBus.Properties;" +
                            kIface + ";");
    }
}

TEST(DbusServer, AnObjectManagerListsOnlyTheObjectsBelowItsOwnPath) {
    // sd-bus behaviour the service layout has to live with: objects on the manager's own path are not listed
    Served samePath(true, kPath);
    std::string text;
    ASSERT_GE(ManagedObjects(kPath, text), 0);
    EXPECT_EQ(text, "");
}

TEST(DbusServer, AnObjectIsRegisteredOnce) {
    Served served;
    ASSERT_EQ(served.startResult, 0);
    EXPECT_EQ(served.thread.Run([&] { return served.server->AddObject(served.counter); }), -EALREADY);
    EXPECT_EQ(served.thread.Run([&] { return served.server->AddObject(nullptr); }), -EINVAL);
}

TEST(DbusObject, WorkerThreadsHandEmissionsToTheBusThread) {
    Served served;
    ASSERT_EQ(served.startResult, 0);
    const auto owned = BusKit::NewLoop();
    ASSERT_TRUE(owned);
    sd_event* loop = owned.get();
    {
        DbusHelper::DbusListener listener(loop);
        ASSERT_EQ(listener.Connect(), 0);
        std::vector<int32_t> seen;
        ASSERT_EQ(listener.ListenSignal(
                      kName, kPath, kIface, "Added",
                      [](sd_bus_message* m, void* userdata, sd_bus_error*) {
                          int32_t v = 0;
                          sd_bus_message_read(m, "i", &v);
                          static_cast<std::vector<int32_t>*>(userdata)->push_back(v);
                          return 0;
                      },
                      &seen),
                  0);
        Logging::Capture capture;
        Counter* counter = served.counter.get();
        std::atomic<int> direct{0};
        std::thread worker([&] {
            // straight from a worker: refused, not raced
            direct = counter->EmitSignal("Added", "i", 1);
            // handed over: emitted by the loop thread
            counter->OnBusThread([counter] { counter->EmitSignal("Added", "i", 2); });
        });
        worker.join();
        EXPECT_EQ(direct.load(), -EXDEV);
        EXPECT_EQ(capture.Count(std::string(kIface) + ".Added: signal not emitted: called off the bus thread",
                                LOG_ERR),
                  1u);
        ASSERT_TRUE(BusTest::PumpUntil(loop, [&] { return !seen.empty(); }));
        BusTest::PumpFor(loop, std::chrono::milliseconds(100));
        EXPECT_EQ(seen, std::vector<int32_t>{2});
    }
}

TEST(DbusObject, EmissionsNeedARegisteredObject) {
    Counter unregistered;
    EXPECT_FALSE(unregistered.IsRegistered());
    EXPECT_EQ(unregistered.EmitSignal("Added", "i", 1), -ENOTCONN);
    EXPECT_EQ(unregistered.EmitPropertiesChanged({"Count"}), -ENOTCONN);
    bool ran = false;
    unregistered.OnBusThread([&] { ran = true; });  // no bus thread yet: runs in place
    EXPECT_TRUE(ran);
}

TEST(DbusObject, PropertiesChangedCarriesTheNamedProperties) {
    Served served;
    ASSERT_EQ(served.startResult, 0);
    const auto owned = BusKit::NewLoop();
    ASSERT_TRUE(owned);
    sd_event* loop = owned.get();
    {
        DbusHelper::DbusListener listener(loop);
        ASSERT_EQ(listener.Connect(), 0);
        sdbus_utils::TypedPropertyMap changed;
        bool got = false;
        struct Sink {
            sdbus_utils::TypedPropertyMap* map;
            bool* got;
        } sink{&changed, &got};
        ASSERT_EQ(listener.ListenSignal(
                      kName, kPath, "org.freedesktop.DBus.Properties", "PropertiesChanged",
                      [](sd_bus_message* m, void* userdata, sd_bus_error*) {
                          auto* s = static_cast<Sink*>(userdata);
                          sd_bus_message_skip(m, "s");
                          const int r = sdbus_utils::ParsePropertiesWithType(m, *s->map);
                          *s->got = true;
                          return r;
                      },
                      &sink),
                  0);
        const int emitted = served.thread.Run([&] {
            served.counter->count = 9;
            return served.counter->EmitPropertiesChanged({"Count", "Label"});
        });
        // sd-bus reports a sent notice with a positive result
        EXPECT_GT(emitted, 0);
        // and a property the interface does not have with an error
        EXPECT_LT(
            served.thread.Run([&] { return served.counter->EmitPropertiesChanged({"NoSuchProperty"}); }), 0);
        ASSERT_TRUE(BusTest::PumpUntil(loop, [&] { return got; }));
        ASSERT_EQ(changed.size(), 2u);
        EXPECT_EQ(changed.at("Count").first, "i");
        EXPECT_EQ(std::any_cast<int32_t>(changed.at("Count").second), 9);
        EXPECT_EQ(std::any_cast<std::string>(changed.at("Label").second), "counter");
    }
}
