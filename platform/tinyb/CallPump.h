#pragma once
// Method calls to BlueZ from any thread. sd-bus is used from the library thread only: a call is handed to
// it, sent and answered there, and its outcome travels back to the caller as text, so that no exception
// object is shared between threads.

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "loop/Queue.h"
#include "tinyb/BluetoothException.hpp"

namespace tinyb::detail {

constexpr const char* kBluez = "org.bluez";
constexpr uint64_t kCallTimeoutUsec = 25ULL * 1000 * 1000;  // sd-bus's own default
constexpr uint64_t kPairTimeoutUsec = 60ULL * 1000 * 1000;  // pairing may wait for the peer
// How much longer than its D-Bus time-out a caller waits for the library thread before giving up.
constexpr std::chrono::seconds kHandOverSlack{5};

// Every method call sent to BlueZ, for diagnostics.
extern std::atomic<uint64_t> g_methodCalls;

class CallPump {
  public:
    using Append = std::function<int(sd_bus_message*)>;

    // Library thread, before anything else: the thread that serves the calls.
    void Enter() { loopThreadId = std::this_thread::get_id(); }
    // Library thread, once `connection` is attached to `event`: calls can flow.
    void Open(sd_event* event, sd_bus* connection);
    // Library thread, when its loop has ended: later calls fail at once.
    void Close();

    bool OnLoopThread() const { return std::this_thread::get_id() == loopThreadId; }

    // Sends path/iface.member to BlueZ and returns read(reply); throws BluetoothException on an error
    // reply or when no answer comes in time. `append` and `read` run on the library thread, so they must
    // own what they use (capture by value).
    template <typename R>
    R Call(const std::string& path, const char* iface, const char* member, Append append,
           std::function<R(sd_bus_message*)> read, uint64_t timeoutUsec = kCallTimeoutUsec) {
        auto promise = std::make_shared<std::promise<Outcome<R>>>();
        auto future = promise->get_future();
        Submit(
            {path, iface, member, std::move(append), timeoutUsec, Completion<R>(promise, std::move(read))});
        Outcome<R> outcome = Await(future, timeoutUsec, std::string(iface) + "." + member + " on " + path);
        if (!outcome.value)
            throw BluetoothException(outcome.errorName, outcome.errorMessage);
        return std::move(*outcome.value);
    }

    // A call whose reply carries nothing of interest.
    void CallVoid(const std::string& path, const char* iface, const char* member, Append append = nullptr,
                  uint64_t timeoutUsec = kCallTimeoutUsec);

    // Runs `task` on the library thread (inline when already there) and waits for it. `task` must own
    // what it uses.
    void RunOnLoop(std::function<void()> task);
    // Hands `task` to the library thread; false when its loop has ended.
    bool Post(std::function<void()> task);

  private:
    // Runs exactly once, on the library thread (on the caller's once that loop has ended): the reply, or
    // null and an error.
    using Done = std::function<void(sd_bus_message*, const std::string&, const std::string&)>;
    struct Request {
        std::string path;
        const char* iface;
        const char* member;
        Append append;
        uint64_t timeoutUsec;
        Done done;
    };
    struct Pending;
    template <typename R>
    struct Outcome {
        std::optional<R> value;  // empty on failure
        std::string errorName;
        std::string errorMessage;
    };

    // Turns the reply, or the error, into the caller's outcome.
    template <typename R>
    static Done Completion(std::shared_ptr<std::promise<Outcome<R>>> promise,
                           std::function<R(sd_bus_message*)> read) {
        return [promise, read = std::move(read)](sd_bus_message* reply, const std::string& errorName,
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
        };
    }

    template <typename T>
    T Await(std::future<T>& future, uint64_t timeoutUsec, const std::string& what) {
        const auto limit = std::chrono::microseconds(timeoutUsec) + kHandOverSlack;
        if (future.wait_for(limit) != std::future_status::ready) {
            throw BluetoothException("org.freedesktop.DBus.Error.Timeout", "no answer in time: " + what);
        }
        return future.get();
    }

    void Submit(Request request);
    void Send(Request& request);
    void SendSync(Request& request);
    static int OnReply(sd_bus_message* m, void* userdata, sd_bus_error* error);
    static void OnPendingDestroyed(void* userdata);

    // Written by the library thread before it hands the client to any other thread; read-only after.
    std::thread::id loopThreadId;
    // Library thread only; owned by the client's core, set between Open and Close.
    sd_bus* bus = nullptr;
    // Guards `queue` itself: the library thread drops it when its loop ends while others may still post.
    std::mutex queueMutex;
    std::unique_ptr<Loop::Queue> queue;
};

}  // namespace tinyb::detail
