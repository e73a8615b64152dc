#pragma once
// Decoding of BlueZ's property dictionaries into the cache's values. Each signal is parsed exactly once,
// straight from the sd-bus message; properties of types the client never reads are skipped.

#include <systemd/sd-bus.h>

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <variant>
#include <vector>

namespace tinyb::detail {

using Bytes = std::vector<uint8_t>;
using ManufacturerData = std::map<uint16_t, Bytes>;
using Value = std::variant<std::monostate, bool, uint8_t, int16_t, uint16_t, int32_t, uint32_t, std::string,
                           std::vector<std::string>, Bytes, ManufacturerData>;

enum Iface : unsigned { kAdapter = 0, kDevice, kService, kCharacteristic, kIfaceCount };

// The properties the client reads, numbered per interface (each interface's block is contiguous).
// Others are skipped when a message is parsed, so a getter indexes a slot instead of matching names.
enum Prop : unsigned {
    // org.bluez.Adapter1
    kAdapterAddress = 0,
    kAdapterName,
    kAdapterAlias,
    kPowered,
    kPairable,
    kDiscoverable,
    kDiscovering,
    // org.bluez.Device1
    kDeviceAddress,
    kDeviceName,
    kDeviceAlias,
    kRssi,
    kClass,
    kAppearance,
    kPaired,
    kTrusted,
    kConnected,
    kServicesResolved,
    kUuids,
    kManufacturerData,
    kDeviceAdapter,
    // org.bluez.GattService1
    kServiceUuid,
    kPrimary,
    kServiceDevice,
    // org.bluez.GattCharacteristic1
    kCharacteristicUuid,
    kCharacteristicService,
    kFlags,
    kNotifying,
    kValue,
    kPropCount
};

extern const char* const kIfaceNames[kIfaceCount];
// -1 for interfaces the client does not mirror
int IfaceFromName(const char* name);
// The D-Bus name of a property, and the interface it belongs to.
const char* PropName(Prop prop);
Iface IfaceOf(Prop prop);

// One interface's properties of one object: a slot per property of that interface.
class PropSet {
  public:
    bool Empty() const { return present == 0; }
    // nullptr when absent
    const Value* Get(Prop prop) const;
    void Set(Prop prop, Value value);
    void Erase(Prop prop);
    // Takes over every property present in `other`.
    void Merge(PropSet&& other);
    void Clear();

  private:
    uint32_t present = 0;
    std::vector<Value> slots;
    Iface iface = kIfaceCount;
};

using IfaceProps = std::array<PropSet, kIfaceCount>;

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
