#include "scanned_device/Json.h"

namespace ScannedDevice {

std::string DumpJson(const nlohmann::json& document) {
    return document.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace ScannedDevice
