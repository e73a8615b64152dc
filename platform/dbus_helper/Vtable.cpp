#include "dbus_helper/Vtable.h"

#include <mutex>
#include <set>
#include <stdexcept>

namespace sdbus_utils {
namespace vtable {

const char* Intern(const std::string& text) {
    // std::set nodes never move, so c_str() stays valid; tables are few and small, nothing is freed
    static std::mutex mutex;
    static std::set<std::string>* texts = new std::set<std::string>();
    std::lock_guard<std::mutex> lock(mutex);
    return texts->insert(text).first->c_str();
}

void AddStart(std::vector<sd_bus_vtable>& table, uint64_t flags) {
    const sd_bus_vtable entry = SD_BUS_VTABLE_START(flags);
    table.push_back(entry);
}

void AddProperty(std::vector<sd_bus_vtable>& table, const std::string& name, const std::string& signature,
                 sd_bus_property_get_t getter, sd_bus_property_set_t setter, uint64_t flags) {
    if (getter == nullptr || setter == nullptr)
        throw std::invalid_argument("property " + name + " needs a getter and a setter");
    const sd_bus_vtable entry =
        SD_BUS_WRITABLE_PROPERTY(Intern(name), Intern(signature), getter, setter, 0, flags);
    table.push_back(entry);
}

void AddPropertyReadOnly(std::vector<sd_bus_vtable>& table, const std::string& name,
                         const std::string& signature, sd_bus_property_get_t getter, uint64_t flags) {
    if (getter == nullptr)
        throw std::invalid_argument("property " + name + " needs a getter");
    const sd_bus_vtable entry = SD_BUS_PROPERTY(Intern(name), Intern(signature), getter, 0, flags);
    table.push_back(entry);
}

void AddVtableMethod(std::vector<sd_bus_vtable>& table, const std::string& name, const std::string& signature,
                     const std::string& result, sd_bus_message_handler_t handler, uint64_t flags) {
    if (handler == nullptr)
        throw std::invalid_argument("method " + name + " needs a handler");
    const sd_bus_vtable entry =
        SD_BUS_METHOD(Intern(name), Intern(signature), Intern(result), handler, flags);
    table.push_back(entry);
}

void AddSignal(std::vector<sd_bus_vtable>& table, const std::string& name, const std::string& signature,
               uint64_t flags) {
    const sd_bus_vtable entry = SD_BUS_SIGNAL(Intern(name), Intern(signature), flags);
    table.push_back(entry);
}

void AddEnd(std::vector<sd_bus_vtable>& table) {
    const sd_bus_vtable entry = SD_BUS_VTABLE_END;
    table.push_back(entry);
}

}  // namespace vtable
}  // namespace sdbus_utils
