#pragma once
// Builders of sd-bus member tables. Each appends one entry made with sd-bus's own SD_BUS_* macros (so the
// table carries the vtable format sd-bus expects) to a std::vector<sd_bus_vtable>. Names and signatures
// are interned for the life of the process: a table may be registered long after the strings the caller
// passed are gone. A table is complete once AddEnd was appended.
//
// Callbacks receive as user data whatever the table is registered with; DbusHelper::DbusServer::AddObject
// registers it with the DbusHelper::DbusObject and routes every callback through an exception barrier.

#include <systemd/sd-bus.h>

#include <cstdint>
#include <string>
#include <vector>

namespace sdbus_utils {
namespace vtable {

void AddStart(std::vector<sd_bus_vtable>& table, uint64_t flags = 0);

// A read-write property. Throws std::invalid_argument when getter or setter is null (sd-bus would read
// the user data's memory instead).
void AddProperty(std::vector<sd_bus_vtable>& table, const std::string& name, const std::string& signature,
                 sd_bus_property_get_t getter, sd_bus_property_set_t setter, uint64_t flags = 0);

// A read-only property. Throws std::invalid_argument when getter is null.
void AddPropertyReadOnly(std::vector<sd_bus_vtable>& table, const std::string& name,
                         const std::string& signature, sd_bus_property_get_t getter, uint64_t flags = 0);

// A method with input `signature` and output `result` ("" for none). Throws std::invalid_argument when
// handler is null.
void AddVtableMethod(std::vector<sd_bus_vtable>& table, const std::string& name, const std::string& signature,
                     const std::string& result, sd_bus_message_handler_t handler, uint64_t flags = 0);

void AddSignal(std::vector<sd_bus_vtable>& table, const std::string& name, const std::string& signature,
               uint64_t flags = 0);

void AddEnd(std::vector<sd_bus_vtable>& table);

// The process-lifetime copy of `text` (same pointer for equal texts).
const char* Intern(const std::string& text);

}  // namespace vtable
}  // namespace sdbus_utils
