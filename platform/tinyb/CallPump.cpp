#include "CallPump.h"

#include <exception>

#include "Wire.h"
#include "dbus_helper/Call.h"
#include "dbus_helper/Handles.h"
#include "loop/CBoundary.h"

namespace tinyb::detail {

std::atomic<uint64_t> g_methodCalls{0};

// Owned by the sd-bus slot of one asynchronous call; freed with the slot.
struct CallPump::Pending {
    Request request;
    bool finished = false;
};

void CallPump::Open(sd_event* event, sd_bus* connection) {
    bus = connection;
    std::lock_guard<std::mutex> lock(queueMutex);
    queue = std::make_unique<Loop::Queue>(event);
}

void CallPump::Close() {
    {
        std::lock_guard<std::mutex> lock(queueMutex);
        queue.reset();
    }
    bus = nullptr;
}

bool CallPump::Post(std::function<void()> task) {
    std::lock_guard<std::mutex> lock(queueMutex);
    if (!queue)
        return false;
    queue->Post(std::move(task));
    return true;
}

void CallPump::Submit(Request request) {
    if (OnLoopThread()) {
        SendSync(request);
        return;
    }
    auto shared = std::make_shared<Request>(std::move(request));
    if (!Post([this, shared] { Send(*shared); }))
        shared->done(nullptr, "", "the library's event loop has ended");
}

// Library thread, called from user code running there (a notification callback calling back into the
// library): the loop cannot dispatch a reply while that code waits, so the call is synchronous.
void CallPump::SendSync(Request& request) {
    DbusHelper::CallFailure failure;
    const int r = DbusHelper::CallMethod(
        bus, DbusHelper::BusKind::System, kBluez, request.path, request.iface, request.member,
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
void CallPump::Send(Request& request) {
    sd_bus_message* built = nullptr;
    int r = sd_bus_message_new_method_call(bus, &built, kBluez, request.path.c_str(), request.iface,
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
    r = sd_bus_call_async(bus, &raw, m.get(), &CallPump::OnReply, pending, pending->request.timeoutUsec);
    if (r < 0) {
        pending->request.done(nullptr, "",
                              "cannot send " + std::string(pending->request.member) + ": " + ErrnoText(r));
        delete pending;
        return;
    }
    // Floating: the bus keeps the slot until the reply, and frees `pending` with it.
    const DbusHelper::Slot slot(raw);
    sd_bus_slot_set_destroy_callback(slot.get(), &CallPump::OnPendingDestroyed);
    sd_bus_slot_set_floating(slot.get(), 1);
}

int CallPump::OnReply(sd_bus_message* m, void* userdata, sd_bus_error*) {
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

void CallPump::OnPendingDestroyed(void* userdata) {
    auto* pending = static_cast<Pending*>(userdata);
    if (!pending->finished) {
        CBoundary::Call("tinyb dropped call",
                        [&] { pending->request.done(nullptr, "", "the system bus connection was closed"); });
    }
    delete pending;
}

void CallPump::CallVoid(const std::string& path, const char* iface, const char* member, Append append,
                        uint64_t timeoutUsec) {
    Call<bool>(
        path, iface, member, std::move(append), [](sd_bus_message*) { return true; }, timeoutUsec);
}

void CallPump::RunOnLoop(std::function<void()> task) {
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

}  // namespace tinyb::detail
