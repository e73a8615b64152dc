#pragma once
// Decoding of BlueZ's property dictionaries into the cache's values. Each signal is parsed exactly once,
// straight from the sd-bus message; properties of types the client never reads are skipped.

#include <systemd/sd-bus.h>

#include <string>
#include <vector>

#include "Props.h"

namespace tinyb::detail {

// Reads an a{sv} of interface `iface` at the current position, merging into `out`. Returns a negative
// errno on a malformed message.
int ReadProperties(sd_bus_message* m, Iface iface, PropSet& out);
// Reads an a{sa{sv}} at the current position; `mask` gets a bit per mirrored interface found.
int ReadInterfaces(sd_bus_message* m, IfaceProps& props, unsigned& mask);
// Reads the "as" of invalidated property names of interface `iface`, as a list of known properties.
int ReadInvalidated(sd_bus_message* m, Iface iface, std::vector<Prop>& out);

// The text of an errno, either sign, for the client's error messages.
std::string ErrnoText(int r);

}  // namespace tinyb::detail
