#pragma once
// The one way the daemon turns a document built from outside data (device names from BlueZ, texts
// decoded from manufacturer data, camera answers) into text.

#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace ScannedDevice {

// Compact (no indentation, no line breaks), non-ASCII left unescaped, and never throws on a string that
// is not valid UTF-8: each invalid octet becomes U+FFFD. A plain dump() would throw type_error 316
// there, out of whichever thread serialised the record.
std::string DumpJson(const nlohmann::json& document);

class Base;

// The documents of `devices`, in their order, as one JSON array dumped as above ("[]" for none).
std::string DevicesJson(const std::vector<std::shared_ptr<Base>>& devices);
// The same for those of `devices` that are RemoteCamera records.
std::string RemoteCamerasJson(const std::vector<std::shared_ptr<Base>>& devices);

}  // namespace ScannedDevice
