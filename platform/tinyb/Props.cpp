#include "Props.h"

#include <cstring>

namespace tinyb::detail {

const char* const kIfaceNames[kIfaceCount] = {"org.bluez.Adapter1", "org.bluez.Device1",
                                              "org.bluez.GattService1", "org.bluez.GattCharacteristic1"};

namespace {

const char* const kPropNames[kPropCount] = {
    "Address",
    "Name",
    "Alias",
    "Powered",
    "Pairable",
    "Discoverable",
    "Discovering",
    "Address",
    "Name",
    "Alias",
    "RSSI",
    "Class",
    "Appearance",
    "Paired",
    "Trusted",
    "Connected",
    "ServicesResolved",
    "UUIDs",
    "ManufacturerData",
    "Adapter",
    "UUID",
    "Primary",
    "Device",
    "UUID",
    "Service",
    "Flags",
    "Notifying",
    "Value",
};
// First property of each interface, and the end of the last block.
constexpr unsigned kFirstProp[kIfaceCount + 1] = {kAdapterAddress, kDeviceAddress, kServiceUuid,
                                                  kCharacteristicUuid, kPropCount};

}  // namespace

Prop FindProp(Iface iface, const char* name) {
    for (unsigned p = kFirstProp[iface]; p < kFirstProp[iface + 1]; ++p) {
        if (std::strcmp(name, kPropNames[p]) == 0)
            return static_cast<Prop>(p);
    }
    return kPropCount;
}

int IfaceFromName(const char* name) {
    for (unsigned i = 0; i < kIfaceCount; ++i) {
        if (std::strcmp(name, kIfaceNames[i]) == 0)
            return static_cast<int>(i);
    }
    return -1;
}

const char* PropName(Prop prop) {
    return kPropNames[prop];
}

Iface IfaceOf(Prop prop) {
    unsigned i = 0;
    while (prop >= kFirstProp[i + 1])
        ++i;
    return static_cast<Iface>(i);
}

const Value* PropSet::Get(Prop prop) const {
    if (iface == kIfaceCount || iface != IfaceOf(prop))
        return nullptr;
    const unsigned slot = prop - kFirstProp[iface];
    return (present & (1u << slot)) != 0 ? &slots[slot] : nullptr;
}

void PropSet::Set(Prop prop, Value value) {
    const Iface which = IfaceOf(prop);
    if (iface != which) {
        iface = which;
        present = 0;
        slots.assign(kFirstProp[which + 1] - kFirstProp[which], Value{});
    }
    const unsigned slot = prop - kFirstProp[which];
    slots[slot] = std::move(value);
    present |= 1u << slot;
}

void PropSet::Erase(Prop prop) {
    if (iface != IfaceOf(prop))
        return;
    const unsigned slot = prop - kFirstProp[iface];
    slots[slot] = Value{};
    present &= ~(1u << slot);
}

void PropSet::Merge(PropSet&& other) {
    if (other.iface == kIfaceCount)
        return;
    for (unsigned slot = 0; slot < other.slots.size(); ++slot) {
        if ((other.present & (1u << slot)) != 0) {
            Set(static_cast<Prop>(kFirstProp[other.iface] + slot), std::move(other.slots[slot]));
        }
    }
}

void PropSet::Clear() {
    present = 0;
    slots.clear();
    iface = kIfaceCount;
}

}  // namespace tinyb::detail
