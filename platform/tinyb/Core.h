#pragma once
// The shared heart of the client: one thread running an sd-event loop with its own system-bus
// connection, the mirror of BlueZ's objects, and the marshalling of calls onto that thread.

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <future>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <shared_mutex>
#include <string>
#include <thread>
#include <type_traits>
#include <unordered_map>
#include <vector>

#include "Wire.h"
#include "dbus_helper/Handles.h"
#include "loop/Queue.h"
#include "tinyb/BluetoothException.hpp"
#include "tinyb/BluetoothGattCharacteristic.hpp"

namespace tinyb::detail {

constexpr const char* kBluez = "org.bluez";
constexpr uint64_t kCallTimeoutUsec = 25ULL * 1000 * 1000;  // sd-bus's own default
constexpr uint64_t kPairTimeoutUsec = 60ULL * 1000 * 1000;  // pairing may wait for the peer
// How much longer than its D-Bus time-out a caller waits for the library thread before giving up.
constexpr std::chrono::seconds kHandOverSlack{5};

// Every method call sent to BlueZ, for diagnostics.
extern std::atomic<uint64_t> g_methodCalls;

// One BlueZ object as last reported. Shared with the handles that refer to it, so that a handle outlives
// the object's removal; written only under the cache lock, and never after removal.
struct Object {
    std::string path;
    unsigned mask = 0;  // a bit per mirrored interface
    bool alive = true;
    IfaceProps props;
};

class Core {
  public:
    // Starts the library thread, connects and loads BlueZ's objects. Throws BluetoothException.
    static std::shared_ptr<Core> Start();
    ~Core();
    Core(const Core&) = delete;
    Core& operator=(const Core&) = delete;

    // ---- cache (any thread)

    // The object at `path`, or else `hint`: a handle keeps the last values of an object BlueZ dropped, as
    // a proxy would. Throws BluetoothException when there is neither or it lacks the property's
    // interface; nullopt when the property is absent or of another type.
    template <typename T>
    std::optional<T> Property(const std::string& path, const Object* hint, Prop prop) const {
        std::shared_lock<std::shared_mutex> lock(cacheMutex);
        const Value* value = Locate(path, hint, IfaceOf(prop)).Get(prop);
        if (value == nullptr)
            return std::nullopt;
        if (const T* v = std::get_if<T>(value))
            return *v;
        return std::nullopt;
    }
    template <typename T>
    T PropertyOr(const std::string& path, const Object* hint, Prop prop, T fallback) const {
        auto v = Property<T>(path, hint, prop);
        return v ? std::move(*v) : std::move(fallback);
    }
    struct Child {
        std::string path;
        std::shared_ptr<const Object> object;
    };
    // The objects whose object-path property `parent` (Device1.Adapter, ...) is `path`, in BlueZ's order.
    std::vector<Child> Children(Prop parent, const std::string& path) const;
    // Adapter paths, lowest hciN first.
    std::vector<std::string> Adapters() const;

    // ---- calls (any thread; blocking)

    using Append = std::function<int(sd_bus_message*)>;

    // Sends path/iface.member to BlueZ and returns read(reply). `append` and `read` run on the library
    // thread, so they must own what they use (capture by value). Errors travel back as text and are thrown
    // on the caller's thread: no exception object is shared between threads.
    template <typename R>
    R Call(const std::string& path, const char* iface, const char* member, Append append,
           std::function<R(sd_bus_message*)> read, uint64_t timeoutUsec = kCallTimeoutUsec) {
        auto promise = std::make_shared<std::promise<Outcome<R>>>();
        auto future = promise->get_future();
        Request request{path,
                        iface,
                        member,
                        std::move(append),
                        timeoutUsec,
                        [promise, read = std::move(read)](sd_bus_message* reply, const std::string& errorName,
                                                          const std::string& errorMessage) {
                            Outcome<R> outcome;
                            if (reply == nullptr) {
                                outcome.errorName = errorName;
                                outcome.errorMessage = errorMessage;
                            } else {
                                try {
                                    outcome.value = read(reply);
                                } catch (const BluetoothException& e) {
                                    outcome.errorName = e.error_name();
                                    outcome.errorMessage = e.what();
                                } catch (const std::exception& e) {
                                    outcome.errorMessage = e.what();
                                }
                            }
                            promise->set_value(std::move(outcome));
                        }};
        const std::string what = std::string(iface) + "." + member + " on " + path;
        Submit(std::move(request));
        Outcome<R> outcome = Await(future, timeoutUsec, what);
        if (!outcome.value)
            throw BluetoothException(outcome.errorName, outcome.errorMessage);
        return std::move(*outcome.value);
    }
    // A call whose reply carries nothing of interest.
    void CallVoid(const std::string& path, const char* iface, const char* member, Append append = nullptr,
                  uint64_t timeoutUsec = kCallTimeoutUsec);
    // org.freedesktop.DBus.Properties.Set of a boolean property.
    void SetBool(const std::string& path, Prop prop, bool value);
    // Reads one interface's properties back from BlueZ into the cache. BlueZ does not always signal a
    // change that a call made (a link it already counted as up emits no Connected), so callers resync
    // after such calls.
    void Refresh(const std::string& path, Iface iface);

    // Runs `task` on the library thread (inline when already there) and waits for it. `task` must own
    // what it uses.
    void RunOnLoop(std::function<void()> task);

    bool OnLoopThread() const { return std::this_thread::get_id() == loopThreadId; }

    // ---- discovery sessions of this process, tracked from the calls' results
    bool StartDiscovery(const std::string& adapter);
    bool StopDiscovery(const std::string& adapter);
    bool DiscoverySession(const std::string& adapter) const;

    // ---- value notifications (library thread only: use RunOnLoop)
    void SetValueCallback(const std::string& path, BluetoothGattCharacteristic::ValueCallback callback);
    void ClearValueCallback(const std::string& path);

  private:
    struct Request {
        std::string path;
        const char* iface;
        const char* member;
        Append append;
        uint64_t timeoutUsec;
        // Runs exactly once, on the library thread (on the caller's once that loop has ended): the reply,
        // or null and an error.
        std::function<void(sd_bus_message*, const std::string&, const std::string&)> done;
    };
    struct Pending;
    template <typename R>
    struct Outcome {
        std::optional<R> value;  // empty on failure
        std::string errorName;
        std::string errorMessage;
    };

    Core() = default;
    struct Failure {
        bool failed = false;
        std::string name;
        std::string message;
    };
    void Run(std::promise<Failure>& started);
    void Setup();
    void Teardown();
    void Submit(Request request);
    // Hands `task` to the library thread; false when its loop has ended.
    bool Post(std::function<void()> task);
    void Send(Request& request);
    void SendSync(Request& request);
    static int OnReply(sd_bus_message* m, void* userdata, sd_bus_error* error);
    static void OnPendingDestroyed(void* userdata);

    template <typename T>
    T Await(std::future<T>& future, uint64_t timeoutUsec, const std::string& what) {
        const auto limit = std::chrono::microseconds(timeoutUsec) + kHandOverSlack;
        if (future.wait_for(limit) != std::future_status::ready) {
            throw BluetoothException("org.freedesktop.DBus.Error.Timeout", "no answer in time: " + what);
        }
        return future.get();
    }

    const PropSet& Locate(const std::string& path, const Object* hint, Iface iface) const;
    // The properties of `iface` at `path` while BlueZ has announced that interface there, else null.
    // Callers hold the cache lock exclusively.
    PropSet* Mirrored(const std::string& path, Iface iface);

    void AddMatches();
    void LoadObjects(sd_bus_message* reply);
    void RequestObjects();
    void ApplyInterfacesAdded(const char* path, IfaceProps& props, unsigned mask);
    void ApplyInterfacesRemoved(const char* path, unsigned mask);
    void ClearCache();
    static int OnInterfacesAdded(sd_bus_message* m, void* userdata, sd_bus_error* error);
    static int OnInterfacesRemoved(sd_bus_message* m, void* userdata, sd_bus_error* error);
    static int OnPropertiesChanged(sd_bus_message* m, void* userdata, sd_bus_error* error);
    static int OnNameOwnerChanged(sd_bus_message* m, void* userdata, sd_bus_error* error);
    static int OnObjectsLoaded(sd_bus_message* m, void* userdata, sd_bus_error* error);

    std::thread thread;
    std::thread::id loopThreadId;
    DbusHelper::Event event;
    DbusHelper::Bus bus;
    // Guards queue_ itself: the library thread drops it when its loop ends while others may still post.
    std::mutex queueMutex;
    std::unique_ptr<Loop::Queue> queue;
    std::vector<DbusHelper::Slot> matches;

    mutable std::shared_mutex cacheMutex;
    std::list<std::shared_ptr<Object>> objects;  // BlueZ's order
    std::unordered_map<std::string, std::list<std::shared_ptr<Object>>::iterator> index;
    std::vector<std::string> adapters;  // lowest hciN first

    // Serialises discovery calls of non-library threads, so that two callers never both start.
    std::mutex discoveryCallMutex;
    mutable std::mutex discoveryMutex;
    std::set<std::string> discoverySessions;

    // Library thread only.
    std::unordered_map<std::string, BluetoothGattCharacteristic::ValueCallback> valueCallbacks;
};

}  // namespace tinyb::detail
