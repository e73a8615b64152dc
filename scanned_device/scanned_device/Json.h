#pragma once
// The one way the daemon turns a document built from outside data (device names from BlueZ, texts
// decoded from manufacturer data, camera answers) into text.

#include <cstddef>
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

// The documents of some records as one JSON array dumped as above ("[]" for none), held as the
// records' own kept texts until it is written out: a list of a thousand devices goes into a D-Bus
// reply with one copy.
class JsonArray {
  public:
    // Every record of `devices`, in their order.
    static JsonArray Devices(const std::vector<std::shared_ptr<Base>>& devices);
    // Those of `devices` that are RemoteCamera records.
    static JsonArray RemoteCameras(const std::vector<std::shared_ptr<Base>>& devices);

    // Octets of the array's text.
    std::size_t Size() const { return size; }
    // Writes the text, Size() octets with no terminating zero.
    void CopyTo(char* out) const;
    std::string Text() const;

  private:
    std::vector<std::shared_ptr<const std::string>> parts;
    std::size_t size = 2;
};

// JsonArray::Devices(devices).Text() and JsonArray::RemoteCameras(devices).Text().
std::string DevicesJson(const std::vector<std::shared_ptr<Base>>& devices);
std::string RemoteCamerasJson(const std::vector<std::shared_ptr<Base>>& devices);

}  // namespace ScannedDevice
