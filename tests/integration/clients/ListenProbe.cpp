// Listens with the three sibling-daemon clients and prints every notification as one line on stdout, for
// tests that restart the simulated peers underneath it. Exits when stdin closes.
//   listen <client> <result>           once per client, then "ready"
//   settings <section> <entries>       a settings section changed
//   network <entries>                  the Wi-Fi properties changed
//   power <entries>                    the local power properties changed
// entries: space-separated key:signature=value, values of s, b, i, u, ai, au; others as "?".
#include <systemd/sd-event.h>
#include <unistd.h>

#include <any>
#include <cstdio>
#include <string>
#include <vector>

#include "clients/NetworkDaemonDbusHandler.h"
#include "clients/PylonDaemonDbusHandler.h"
#include "clients/SettingsDaemonDbusHandler.h"
#include "loop/CBoundary.h"
#include "test_support/BusKit.h"

namespace {

template <typename T>
std::string Join(const std::vector<T>& values) {
    std::string text = "[";
    for (size_t i = 0; i < values.size(); ++i)
        text += (i ? "," : "") + std::to_string(values[i]);
    return text + "]";
}

std::string Render(const sdbus_utils::TypedPropertyMap& map) {
    std::string text;
    for (const auto& [key, typed] : map) {
        const auto& [signature, value] = typed;
        std::string shown = "?";
        if (signature == "s")
            shown = std::any_cast<std::string>(value);
        if (signature == "b")
            shown = std::any_cast<bool>(value) ? "true" : "false";
        if (signature == "i")
            shown = std::to_string(std::any_cast<int32_t>(value));
        if (signature == "u")
            shown = std::to_string(std::any_cast<uint32_t>(value));
        if (signature == "ai")
            shown = Join(std::any_cast<std::vector<int32_t>>(value));
        if (signature == "au")
            shown = Join(std::any_cast<std::vector<uint32_t>>(value));
        text += " " + key + ":" + signature + "=" + shown;
    }
    return text;
}

void Say(const std::string& line) {
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
}

int OnStdin(sd_event_source* source, int fd, uint32_t, void*) {
    return CBoundary::Call("stdin", [&] {
        char buf[64];
        if (read(fd, buf, sizeof buf) <= 0)
            sd_event_exit(sd_event_source_get_event(source), 0);
    });
}

}  // namespace

int main() {
    Logging::SetStderrEcho(true);
    const auto owned = BusKit::NewLoop();
    if (!owned)
        return 1;
    sd_event* loop = owned.get();
    sd_event_add_io(loop, nullptr, STDIN_FILENO, EPOLLIN | EPOLLHUP, &OnStdin, nullptr);
    {
        Settingsd::SettingsDaemonDbusHandler settings(loop);
        Networkd::NetworkDaemonDbusHandler network(loop);
        Pylond::PylonDaemonDbusHandler power(loop);
        for (const auto& section : Settingsd::kSections)
            settings.SectionChanged(section).connect(
                [section](sdbus_utils::TypedPropertyMap& map) { Say("settings " + section + Render(map)); });
        network.PropertiesChanged().connect(
            [](sdbus_utils::TypedPropertyMap& map) { Say("network" + Render(map)); });
        power.PowerSignal().connect([](sdbus_utils::TypedPropertyMap& map) { Say("power" + Render(map)); });
        Say("listen settings " + std::to_string(settings.Listen()));
        Say("listen network " + std::to_string(network.Listen()));
        Say("listen power " + std::to_string(power.Listen()));
        Say("ready");
        sd_event_loop(loop);
    }
    return 0;
}
