// The yardstick for the daemon's large replies: a service on the same bus that answers Text(u size)
// with a string of that many octets, built once, so that a client can time what carrying such a string
// costs the bus and itself, with nothing else in the way.
//   bus_reference_server        on the user bus (DBUS_SESSION_BUS_ADDRESS); prints READY when its name
//                               is owned, stops on SIGTERM

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>

#include "sd_handles/Handles.h"

namespace {

constexpr const char* kName = "com.quorbel.bench.Reference";
constexpr const char* kPath = "/com/quorbel/bench/Reference";
std::string g_text;

int Text(sd_bus_message* call, void*, sd_bus_error* error) {
    uint32_t size = 0;
    const int r = sd_bus_message_read(call, "u", &size);
    if (r < 0)
        return r;
    if (size > (64u << 20))
        return sd_bus_error_set(error, SD_BUS_ERROR_INVALID_ARGS, "at most 64 MiB");
    if (g_text.size() != size)
        g_text.assign(size, 'x');
    return sd_bus_reply_method_return(call, "s", g_text.c_str());
}

const sd_bus_vtable kVtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Text", "u", "s", Text, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

}  // namespace

int main() {
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, SIGTERM);
    sigaddset(&mask, SIGINT);
    sigprocmask(SIG_BLOCK, &mask, nullptr);
    sd_event* defaultLoop = nullptr;
    int r = sd_event_default(&defaultLoop);
    const SdHandles::Event loop(r >= 0 ? defaultLoop : nullptr);
    if (r >= 0)
        r = sd_event_add_signal(loop.get(), nullptr, SIGTERM, nullptr, nullptr);
    if (r >= 0)
        r = sd_event_add_signal(loop.get(), nullptr, SIGINT, nullptr, nullptr);
    SdHandles::Bus bus;
    if (r >= 0) {
        sd_bus* opened = nullptr;
        r = sd_bus_open_user(&opened);
        bus.reset(r >= 0 ? opened : nullptr);
    }
    if (r >= 0)
        r = sd_bus_add_object_vtable(bus.get(), nullptr, kPath, kName, kVtable, nullptr);
    if (r >= 0)
        r = sd_bus_request_name(bus.get(), kName, 0);
    if (r >= 0)
        r = sd_bus_attach_event(bus.get(), loop.get(), SD_EVENT_PRIORITY_NORMAL);
    if (r < 0) {
        std::fprintf(stderr, "bus_reference_server: %s\n", std::strerror(-r));
        return 1;
    }
    std::printf("READY\n");
    std::fflush(stdout);
    r = sd_event_loop(loop.get());
    return r < 0 ? 1 : 0;
}
