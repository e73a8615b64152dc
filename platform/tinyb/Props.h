#pragma once
// The client's vocabulary of BlueZ: the interfaces it mirrors, the properties it reads and their values,
// and the set of one interface's properties of one object.

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
// The property of `iface` named `name`, or kPropCount when the client does not read it.
Prop FindProp(Iface iface, const char* name);

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

}  // namespace tinyb::detail
