#include "Core.h"

#include <syslog.h>

#include "dbus_helper/Call.h"
#include "logging/Log.h"
#include "loop/CBoundary.h"

namespace tinyb::detail {

namespace {

constexpr const char* kObjectManager = "org.freedesktop.DBus.ObjectManager";
constexpr const char* kProperties = "org.freedesktop.DBus.Properties";

}  // namespace

// ---------------------------------------------------------------- the library thread

std::shared_ptr<Core> Core::Start() {
    std::shared_ptr<Core> core(new Core());
    // shared: the library thread may still be inside set_value() when this thread has moved on
    auto started = std::make_shared<std::promise<Failure>>();
    auto ready = started->get_future();
    core->thread = std::thread([raw = core.get(), started] { raw->Run(*started); });
    const Failure failure = ready.get();
    if (failure.failed) {
        core->thread.join();
        throw BluetoothException(failure.name, failure.message);
    }
    return core;
}

Core::~Core() {
    if (thread.joinable()) {
        if (OnLoopThread()) {
            thread.detach();
            // Dropped by one of its own callbacks: the loop still runs on the bus, the matches and
            // itself, so they must not go away under it.
            for (DbusHelper::Slot& match : matches)
                (void)match.release();
            (void)bus.release();
            (void)event.release();
        } else {
            pump.Post([this] { sd_event_exit(event.get(), 0); });
            thread.join();
        }
    }
}

void Core::Run(std::promise<Failure>& started) {
    pump.Enter();
    Failure failure;
    try {
        Setup();
    } catch (const BluetoothException& e) {
        // handed over as text: the exception object stays on this thread
        failure = {true, e.error_name(), e.what()};
        const std::string prefix = failure.name + ": ";
        if (!failure.name.empty() && failure.message.rfind(prefix, 0) == 0)
            failure.message.erase(0, prefix.size());
    } catch (const std::exception& e) {
        failure = {true, "", e.what()};
    }
    if (failure.failed) {
        Teardown();
        started.set_value(failure);
        return;
    }
    started.set_value(failure);
    const int r = sd_event_loop(event.get());
    if (r < 0)
        Logging::Log(LOG_ERR, "tinyb: event loop ended: %s", ErrnoText(r).c_str());
    Teardown();
}

void Core::Teardown() {
    pump.Close();
    matches.clear();
    bus.reset();
    event.reset();
}

void Core::Setup() {
    sd_event* loopEvent = nullptr;
    int r = sd_event_new(&loopEvent);
    if (r < 0)
        throw BluetoothException("cannot create an event loop: " + ErrnoText(r));
    event.reset(loopEvent);
    sd_bus* connection = nullptr;
    r = sd_bus_open_system_with_description(&connection, "tinyb");
    if (r < 0)
        throw BluetoothException("cannot connect to the system bus: " + ErrnoText(r));
    bus.reset(connection);
    r = sd_bus_attach_event(connection, loopEvent, SD_EVENT_PRIORITY_NORMAL);
    if (r < 0)
        throw BluetoothException("cannot attach the system bus: " + ErrnoText(r));
    pump.Open(loopEvent, connection);

    // Matches first, so that nothing BlueZ changes after its object list is missed.
    AddMatches();

    g_methodCalls.fetch_add(1, std::memory_order_relaxed);
    DbusHelper::CallFailure failure;
    r = DbusHelper::CallMethod(
        connection, DbusHelper::BusKind::System, kBluez, "/", kObjectManager, "GetManagedObjects", {},
        [this](sd_bus_message* reply) {
            mirror.Load(reply);
            return 0;
        },
        failure);
    if (r < 0)
        throw BluetoothException(failure.name, failure.message ? *failure.message : ErrnoText(r));
}

void Core::AddMatches() {
    struct Match {
        std::string rule;
        sd_bus_message_handler_t handler;
    };
    const std::string bluez = "type='signal',sender='org.bluez',";
    std::vector<Match> rules = {
        {bluez + "path='/',interface='org.freedesktop.DBus.ObjectManager',member='InterfacesAdded'",
         &Core::OnInterfacesAdded},
        {bluez + "path='/',interface='org.freedesktop.DBus.ObjectManager',member='InterfacesRemoved'",
         &Core::OnInterfacesRemoved},
        {"type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',"
         "interface='org.freedesktop.DBus',member='NameOwnerChanged',arg0='org.bluez'",
         &Core::OnNameOwnerChanged},
    };
    // One rule per mirrored interface: changes of other BlueZ interfaces never wake this thread.
    for (const char* iface : kIfaceNames) {
        rules.push_back({bluez +
                             "interface='org.freedesktop.DBus.Properties',member='PropertiesChanged',"
                             "path_namespace='/org/bluez',arg0='" +
                             iface + "'",
                         &Core::OnPropertiesChanged});
    }
    for (const Match& match : rules) {
        sd_bus_slot* slot = nullptr;
        const int r = sd_bus_add_match(bus.get(), &slot, match.rule.c_str(), match.handler, this);
        DbusHelper::Slot owned(slot);
        if (r < 0)
            throw BluetoothException("cannot subscribe to BlueZ's signals: " + ErrnoText(r));
        matches.push_back(std::move(owned));
    }
}

void Core::RequestObjects() {
    sd_bus_message* built = nullptr;
    int r =
        sd_bus_message_new_method_call(bus.get(), &built, kBluez, "/", kObjectManager, "GetManagedObjects");
    const DbusHelper::Message m(built);
    if (r >= 0) {
        g_methodCalls.fetch_add(1, std::memory_order_relaxed);
        r = sd_bus_call_async(bus.get(), nullptr, m.get(), &Core::OnObjectsLoaded, this, kCallTimeoutUsec);
    }
    if (r < 0)
        Logging::Log(LOG_ERR, "tinyb: cannot ask BlueZ for its objects: %s", ErrnoText(r).c_str());
}

// ---------------------------------------------------------------- calls beyond the pump

void Core::SetBool(const std::string& path, Prop prop, bool value) {
    const std::string ifaceName = kIfaceNames[IfaceOf(prop)];
    const std::string property = PropName(prop);
    CallVoid(path, kProperties, "Set", [ifaceName, property, value](sd_bus_message* m) {
        return sd_bus_message_append(m, "ssv", ifaceName.c_str(), property.c_str(), "b", value ? 1 : 0);
    });
}

void Core::Refresh(const std::string& path, Iface iface) {
    const std::string ifaceName = kIfaceNames[iface];
    // Merged on the library thread, in order with the signals around the reply.
    Call<bool>(
        path, kProperties, "GetAll",
        [ifaceName](sd_bus_message* m) { return sd_bus_message_append(m, "s", ifaceName.c_str()); },
        [this, path, iface](sd_bus_message* reply) {
            PropSet fresh;
            const int r = ReadProperties(reply, iface, fresh);
            if (r < 0)
                throw BluetoothException("malformed GetAll reply: " + ErrnoText(r));
            mirror.Merge(path, iface, std::move(fresh));
            return true;
        },
        kCallTimeoutUsec);
}

}  // namespace tinyb::detail
