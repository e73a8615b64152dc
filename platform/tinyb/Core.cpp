#include "Core.h"

#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "dbus_helper/Call.h"
#include "logging/Log.h"
#include "loop/CBoundary.h"

namespace tinyb::detail {

std::atomic<uint64_t> g_methodCalls{0};

namespace {

constexpr const char* kObjectManager = "org.freedesktop.DBus.ObjectManager";
constexpr const char* kProperties = "org.freedesktop.DBus.Properties";

// hciN -> N for ordering; other names sort after every hciN
unsigned long AdapterIndex(const std::string& path) {
    const auto slash = path.rfind('/');
    const std::string leaf = path.substr(slash == std::string::npos ? 0 : slash + 1);
    if (leaf.rfind("hci", 0) != 0 || leaf.size() == 3)
        return ~0UL;
    char* end = nullptr;
    const unsigned long n = std::strtoul(leaf.c_str() + 3, &end, 10);
    return *end == '\0' ? n : ~0UL;
}

std::string ErrnoText(int r) {
    return std::strerror(r < 0 ? -r : r);
}

}  // namespace

// Owned by the sd-bus slot of one asynchronous call; freed with the slot.
struct Core::Pending {
    Request request;
    bool finished = false;
};

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
            Post([this] { sd_event_exit(event.get(), 0); });
            thread.join();
        }
    }
}

void Core::Run(std::promise<Failure>& started) {
    loopThreadId = std::this_thread::get_id();
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
    {
        std::lock_guard<std::mutex> lock(queueMutex);
        queue.reset();
    }
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
    {
        std::lock_guard<std::mutex> lock(queueMutex);
        queue = std::make_unique<Loop::Queue>(loopEvent);
    }

    // Matches first, so that nothing BlueZ changes after its object list is missed.
    AddMatches();

    g_methodCalls.fetch_add(1, std::memory_order_relaxed);
    DbusHelper::CallFailure failure;
    r = DbusHelper::CallMethod(
        connection, DbusHelper::BusKind::System, kBluez, "/", kObjectManager, "GetManagedObjects", {},
        [this](sd_bus_message* reply) {
            LoadObjects(reply);
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

// ---------------------------------------------------------------- cache

const PropSet& Core::Locate(const std::string& path, const Object* hint, Iface iface) const {
    const Object* object = hint;
    if (object == nullptr || !object->alive) {
        auto it = index.find(path);
        if (it != index.end())
            object = it->second->get();
    }
    if (object == nullptr || (object->mask & (1u << iface)) == 0) {
        throw BluetoothException("org.freedesktop.DBus.Error.UnknownObject",
                                 "BlueZ has no " + std::string(kIfaceNames[iface]) + " at " + path);
    }
    return object->props[iface];
}

PropSet* Core::Mirrored(const std::string& path, Iface iface) {
    auto it = index.find(path);
    if (it == index.end() || ((*it->second)->mask & (1u << iface)) == 0)
        return nullptr;
    return &(*it->second)->props[iface];
}

std::vector<Core::Child> Core::Children(Prop parent, const std::string& path) const {
    const Iface iface = IfaceOf(parent);
    std::vector<Child> children;
    std::shared_lock<std::shared_mutex> lock(cacheMutex);
    for (const auto& object : objects) {
        if ((object->mask & (1u << iface)) == 0)
            continue;
        const Value* value = object->props[iface].Get(parent);
        const auto* text = value == nullptr ? nullptr : std::get_if<std::string>(value);
        if (text != nullptr && *text == path)
            children.push_back({object->path, object});
    }
    return children;
}

std::vector<std::string> Core::Adapters() const {
    std::shared_lock<std::shared_mutex> lock(cacheMutex);
    return adapters;
}

void Core::LoadObjects(sd_bus_message* reply) {
    int r = sd_bus_message_enter_container(reply, SD_BUS_TYPE_ARRAY, "{oa{sa{sv}}}");
    while (r >= 0 && (r = sd_bus_message_enter_container(reply, SD_BUS_TYPE_DICT_ENTRY, "oa{sa{sv}}")) > 0) {
        const char* path = nullptr;
        if ((r = sd_bus_message_read_basic(reply, SD_BUS_TYPE_OBJECT_PATH, &path)) < 0)
            break;
        IfaceProps props;
        unsigned mask = 0;
        if ((r = ReadInterfaces(reply, props, mask)) < 0)
            break;
        ApplyInterfacesAdded(path, props, mask);
        r = sd_bus_message_exit_container(reply);
    }
    if (r >= 0)
        r = sd_bus_message_exit_container(reply);
    if (r < 0)
        throw BluetoothException("malformed GetManagedObjects reply from BlueZ: " + ErrnoText(r));
}

void Core::ApplyInterfacesAdded(const char* path, IfaceProps& props, unsigned mask) {
    if (mask == 0)
        return;
    std::unique_lock<std::shared_mutex> lock(cacheMutex);
    auto it = index.find(path);
    if (it == index.end()) {
        auto object = std::make_shared<Object>();
        object->path = path;
        objects.push_back(std::move(object));
        it = index.emplace(path, std::prev(objects.end())).first;
    }
    Object& object = **it->second;
    for (unsigned i = 0; i < kIfaceCount; ++i) {
        if ((mask & (1u << i)) != 0)
            object.props[i].Merge(std::move(props[i]));
    }
    if ((mask & (1u << kAdapter)) != 0 && (object.mask & (1u << kAdapter)) == 0) {
        adapters.push_back(object.path);
        std::stable_sort(adapters.begin(), adapters.end(), [](const std::string& a, const std::string& b) {
            const auto ia = AdapterIndex(a), ib = AdapterIndex(b);
            return ia != ib ? ia < ib : a < b;
        });
    }
    object.mask |= mask;
}

void Core::ApplyInterfacesRemoved(const char* path, unsigned mask) {
    {
        std::unique_lock<std::shared_mutex> lock(cacheMutex);
        auto it = index.find(path);
        if (it == index.end())
            return;
        Object& object = **it->second;
        if ((mask & object.mask & (1u << kAdapter)) != 0) {
            adapters.erase(std::remove(adapters.begin(), adapters.end(), object.path), adapters.end());
        }
        if ((object.mask & ~mask) == 0) {
            // Gone: handles keep its last values.
            object.alive = false;
            objects.erase(it->second);
            index.erase(it);
        } else {
            for (unsigned i = 0; i < kIfaceCount; ++i) {
                if ((mask & (1u << i)) != 0)
                    object.props[i].Clear();
            }
            object.mask &= ~mask;
        }
    }
    if ((mask & (1u << kAdapter)) != 0) {
        std::lock_guard<std::mutex> lock(discoveryMutex);
        discoverySessions.erase(path);
    }
    if ((mask & (1u << kCharacteristic)) != 0)
        valueCallbacks.erase(path);
}

void Core::ClearCache() {
    {
        std::unique_lock<std::shared_mutex> lock(cacheMutex);
        for (auto& object : objects)
            object->alive = false;
        objects.clear();
        index.clear();
        adapters.clear();
    }
    {
        std::lock_guard<std::mutex> lock(discoveryMutex);
        discoverySessions.clear();
    }
    valueCallbacks.clear();
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

int Core::OnObjectsLoaded(sd_bus_message* m, void* userdata, sd_bus_error*) {
    return CBoundary::Call("tinyb GetManagedObjects reply", [&] {
        if (sd_bus_message_is_method_error(m, nullptr)) {
            const sd_bus_error* e = sd_bus_message_get_error(m);
            Logging::Log(LOG_ERR, "tinyb: BlueZ did not list its objects: %s",
                         e && e->message ? e->message : "");
            return;
        }
        static_cast<Core*>(userdata)->LoadObjects(m);
    });
}

int Core::OnInterfacesAdded(sd_bus_message* m, void* userdata, sd_bus_error*) {
    return CBoundary::Call("tinyb InterfacesAdded", [&] {
        const char* path = nullptr;
        int r = sd_bus_message_read_basic(m, SD_BUS_TYPE_OBJECT_PATH, &path);
        IfaceProps props;
        unsigned mask = 0;
        if (r >= 0)
            r = ReadInterfaces(m, props, mask);
        if (r < 0)
            throw BluetoothException("malformed InterfacesAdded: " + ErrnoText(r));
        static_cast<Core*>(userdata)->ApplyInterfacesAdded(path, props, mask);
    });
}

int Core::OnInterfacesRemoved(sd_bus_message* m, void* userdata, sd_bus_error*) {
    return CBoundary::Call("tinyb InterfacesRemoved", [&] {
        const char* path = nullptr;
        int r = sd_bus_message_read_basic(m, SD_BUS_TYPE_OBJECT_PATH, &path);
        unsigned mask = 0;
        if (r >= 0)
            r = sd_bus_message_enter_container(m, SD_BUS_TYPE_ARRAY, "s");
        const char* name = nullptr;
        while (r >= 0 && (r = sd_bus_message_read_basic(m, SD_BUS_TYPE_STRING, &name)) > 0) {
            const int iface = IfaceFromName(name);
            if (iface >= 0)
                mask |= 1u << iface;
        }
        if (r < 0)
            throw BluetoothException("malformed InterfacesRemoved: " + ErrnoText(r));
        if (mask != 0)
            static_cast<Core*>(userdata)->ApplyInterfacesRemoved(path, mask);
    });
}

int Core::OnPropertiesChanged(sd_bus_message* m, void* userdata, sd_bus_error*) {
    return CBoundary::Call("tinyb PropertiesChanged", [&] {
        Core* core = static_cast<Core*>(userdata);
        const char* path = sd_bus_message_get_path(m);
        const char* name = nullptr;
        int r = sd_bus_message_read_basic(m, SD_BUS_TYPE_STRING, &name);
        if (r < 0 || path == nullptr)
            throw BluetoothException("malformed PropertiesChanged");
        const int iface = IfaceFromName(name);
        if (iface < 0)
            return;
        const Iface which = static_cast<Iface>(iface);
        PropSet changed;
        r = ReadProperties(m, which, changed);
        std::vector<Prop> invalidated;
        if (r >= 0)
            r = ReadInvalidated(m, which, invalidated);
        if (r < 0)
            throw BluetoothException("malformed PropertiesChanged: " + ErrnoText(r));

        // BlueZ ends every discovery session of an adapter that is powered off
        if (which == kAdapter) {
            const Value* powered = changed.Get(kPowered);
            const bool* on = powered == nullptr ? nullptr : std::get_if<bool>(powered);
            if (on != nullptr && !*on) {
                std::lock_guard<std::mutex> lock(core->discoveryMutex);
                core->discoverySessions.erase(path);
            }
        }
        // A notification's value is copied out before the cache takes it over.
        std::optional<Bytes> notified;
        if (which == kCharacteristic && core->valueCallbacks.count(path) != 0) {
            const Value* value = changed.Get(kValue);
            const auto* bytes = value == nullptr ? nullptr : std::get_if<Bytes>(value);
            if (bytes != nullptr)
                notified = *bytes;
        }
        {
            std::unique_lock<std::shared_mutex> lock(core->cacheMutex);
            // BlueZ announces an interface before changing it; anything else is stale
            PropSet* props = core->Mirrored(path, which);
            if (props == nullptr)
                return;
            props->Merge(std::move(changed));
            for (Prop gone : invalidated)
                props->Erase(gone);
        }
        if (notified) {
            auto callback = core->valueCallbacks.find(path);
            if (callback == core->valueCallbacks.end())
                return;
            // A copy: the callback may withdraw itself while it runs.
            auto function = callback->second;
            try {
                function(*notified);
            } catch (const std::exception& e) {
                Logging::Log(LOG_ERR, "tinyb: notification callback for %s threw: %s", path, e.what());
            } catch (...) {
                Logging::Log(LOG_ERR, "tinyb: notification callback for %s threw", path);
            }
        }
    });
}

int Core::OnNameOwnerChanged(sd_bus_message* m, void* userdata, sd_bus_error*) {
    return CBoundary::Call("tinyb NameOwnerChanged", [&] {
        const char *name = nullptr, *oldOwner = nullptr, *newOwner = nullptr;
        const int r = sd_bus_message_read(m, "sss", &name, &oldOwner, &newOwner);
        if (r < 0)
            throw BluetoothException("malformed NameOwnerChanged: " + ErrnoText(r));
        Core* core = static_cast<Core*>(userdata);
        if (oldOwner != nullptr && *oldOwner != '\0') {
            Logging::Log(LOG_WARNING, "tinyb: BlueZ left the system bus");
            core->ClearCache();
        }
        if (newOwner != nullptr && *newOwner != '\0') {
            Logging::Log(LOG_INFO, "tinyb: BlueZ is on the system bus, loading its objects");
            core->RequestObjects();
        }
    });
}

// ---------------------------------------------------------------- calls

void Core::Submit(Request request) {
    if (OnLoopThread()) {
        SendSync(request);
        return;
    }
    auto shared = std::make_shared<Request>(std::move(request));
    if (!Post([this, shared] { Send(*shared); }))
        shared->done(nullptr, "", "the library's event loop has ended");
}

bool Core::Post(std::function<void()> task) {
    std::lock_guard<std::mutex> lock(queueMutex);
    if (!queue)
        return false;
    queue->Post(std::move(task));
    return true;
}

// Library thread, called from user code running there (a notification callback calling back into the
// library): the loop cannot dispatch a reply while that code waits, so the call is synchronous.
void Core::SendSync(Request& request) {
    DbusHelper::CallFailure failure;
    const int r = DbusHelper::CallMethod(
        bus.get(), DbusHelper::BusKind::System, kBluez, request.path, request.iface, request.member,
        [&request](sd_bus_message* m) {
            const int built = request.append ? request.append(m) : 0;
            if (built >= 0)
                g_methodCalls.fetch_add(1, std::memory_order_relaxed);
            return built;
        },
        [&request](sd_bus_message* reply) {
            request.done(reply, "", "");
            return 0;
        },
        failure, request.timeoutUsec);
    if (failure.step == DbusHelper::CallFailure::Step::Build)
        request.done(nullptr, "", "cannot build " + std::string(request.member) + ": " + ErrnoText(r));
    else if (r < 0)
        request.done(nullptr, failure.name, failure.message ? *failure.message : ErrnoText(r));
}

// Library thread: builds and sends the call asynchronously; OnReply completes it.
void Core::Send(Request& request) {
    sd_bus_message* built = nullptr;
    int r = sd_bus_message_new_method_call(bus.get(), &built, kBluez, request.path.c_str(), request.iface,
                                           request.member);
    const DbusHelper::Message m(built);
    if (r >= 0 && request.append)
        r = request.append(m.get());
    if (r < 0) {
        request.done(nullptr, "", "cannot build " + std::string(request.member) + ": " + ErrnoText(r));
        return;
    }
    g_methodCalls.fetch_add(1, std::memory_order_relaxed);
    auto* pending = new Pending{std::move(request), false};
    sd_bus_slot* raw = nullptr;
    r = sd_bus_call_async(bus.get(), &raw, m.get(), &Core::OnReply, pending, pending->request.timeoutUsec);
    if (r < 0) {
        pending->request.done(nullptr, "",
                              "cannot send " + std::string(pending->request.member) + ": " + ErrnoText(r));
        delete pending;
        return;
    }
    // Floating: the bus keeps the slot until the reply, and frees `pending` with it.
    const DbusHelper::Slot slot(raw);
    sd_bus_slot_set_destroy_callback(slot.get(), &Core::OnPendingDestroyed);
    sd_bus_slot_set_floating(slot.get(), 1);
}

int Core::OnReply(sd_bus_message* m, void* userdata, sd_bus_error*) {
    return CBoundary::Call("tinyb method reply", [&] {
        auto* pending = static_cast<Pending*>(userdata);
        pending->finished = true;
        if (sd_bus_message_is_method_error(m, nullptr)) {
            const sd_bus_error* e = sd_bus_message_get_error(m);
            pending->request.done(nullptr, e && e->name ? e->name : "", e && e->message ? e->message : "");
        } else {
            pending->request.done(m, "", "");
        }
    });
}

void Core::OnPendingDestroyed(void* userdata) {
    auto* pending = static_cast<Pending*>(userdata);
    if (!pending->finished) {
        CBoundary::Call("tinyb dropped call",
                        [&] { pending->request.done(nullptr, "", "the system bus connection was closed"); });
    }
    delete pending;
}

void Core::CallVoid(const std::string& path, const char* iface, const char* member, Append append,
                    uint64_t timeoutUsec) {
    Call<bool>(
        path, iface, member, std::move(append), [](sd_bus_message*) { return true; }, timeoutUsec);
}

void Core::RunOnLoop(std::function<void()> task) {
    if (OnLoopThread()) {
        task();
        return;
    }
    auto promise = std::make_shared<std::promise<std::string>>();
    auto future = promise->get_future();
    const bool posted = Post([promise, task = std::move(task)] {
        std::string error;
        try {
            task();
        } catch (const std::exception& e) {
            error = e.what();
            if (error.empty())
                error = "failed";
        }
        promise->set_value(std::move(error));
    });
    if (!posted)
        throw BluetoothException("the library's event loop has ended");
    const std::string error = Await(future, kCallTimeoutUsec, "hand-over to the library thread");
    if (!error.empty())
        throw BluetoothException(error);
}

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
            std::unique_lock<std::shared_mutex> lock(cacheMutex);
            if (PropSet* props = Mirrored(path, iface))
                props->Merge(std::move(fresh));
            return true;
        },
        kCallTimeoutUsec);
}

// ---------------------------------------------------------------- discovery

bool Core::DiscoverySession(const std::string& adapter) const {
    std::lock_guard<std::mutex> lock(discoveryMutex);
    return discoverySessions.count(adapter) != 0;
}

bool Core::StartDiscovery(const std::string& adapter) {
    std::unique_lock<std::mutex> serial(discoveryCallMutex, std::defer_lock);
    if (!OnLoopThread())
        serial.lock();
    if (DiscoverySession(adapter))
        return true;
    try {
        CallVoid(adapter, kIfaceNames[kAdapter], "StartDiscovery");
    } catch (const BluetoothException& e) {
        // BlueZ says this client's discovery already runs: remember it, so that a stop goes out
        if (e.error_name() == "org.bluez.Error.InProgress") {
            std::lock_guard<std::mutex> lock(discoveryMutex);
            discoverySessions.insert(adapter);
        }
        throw;
    }
    std::lock_guard<std::mutex> lock(discoveryMutex);
    discoverySessions.insert(adapter);
    return true;
}

bool Core::StopDiscovery(const std::string& adapter) {
    std::unique_lock<std::mutex> serial(discoveryCallMutex, std::defer_lock);
    if (!OnLoopThread())
        serial.lock();
    if (!DiscoverySession(adapter))
        return false;
    try {
        CallVoid(adapter, kIfaceNames[kAdapter], "StopDiscovery");
    } catch (const BluetoothException& e) {
        // Whatever BlueZ refused, it holds no session for us that a later stop could end, except when
        // the answer never came.
        if (e.error_name() != "org.freedesktop.DBus.Error.Timeout" &&
            e.error_name() != "org.freedesktop.DBus.Error.NoReply") {
            std::lock_guard<std::mutex> lock(discoveryMutex);
            discoverySessions.erase(adapter);
        }
        throw;
    }
    std::lock_guard<std::mutex> lock(discoveryMutex);
    discoverySessions.erase(adapter);
    return true;
}

// ---------------------------------------------------------------- notifications

void Core::SetValueCallback(const std::string& path, BluetoothGattCharacteristic::ValueCallback callback) {
    valueCallbacks[path] = std::move(callback);
}

void Core::ClearValueCallback(const std::string& path) {
    valueCallbacks.erase(path);
}

}  // namespace tinyb::detail
