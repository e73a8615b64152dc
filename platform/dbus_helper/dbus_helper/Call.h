#pragma once
// One blocking method call and its reply: open (or take) a bus, build the call, send it, read the reply
// and release everything on every path.

#include <systemd/sd-bus.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace DbusHelper {

enum class BusKind { User, System };

struct CallFailure {
    enum class Step { None, Open, Build, Call, Read };
    Step step = Step::None;
    int result = 0;  // what the failing step returned
    // From the D-Bus error of a failed build or call. The message is absent when the error carried none,
    // and kept as it is when empty: some callers tell the two apart.
    std::string name;
    std::optional<std::string> message;
};

using Writer = std::function<int(sd_bus_message*)>;
using Reader = std::function<int(sd_bus_message*)>;

// Calls destination.path.interface.member on `bus`, or (bus == nullptr) on a fresh connection of `kind`
// opened for this call and closed with sd_bus_flush_close_unref. `append` adds the arguments and `read`
// reads the reply; either may be empty, and their exceptions pass through. A build failure fills the
// error as sd_bus_call_method does. timeoutUsec 0 is sd-bus's default.
// Returns sd_bus_call's (positive) result, or the negative errno of the step that failed (the reader's
// own when it returns one); `failure` says which step that was.
int CallMethod(sd_bus* bus, BusKind kind, const std::string& destination, const std::string& path,
               const std::string& interface, const std::string& member, const Writer& append,
               const Reader& read, CallFailure& failure, uint64_t timeoutUsec = 0);

}  // namespace DbusHelper
