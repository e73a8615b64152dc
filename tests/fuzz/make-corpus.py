#!/usr/bin/env python3
"""Writes the seed corpus of the fuzz targets (tests/fuzz/corpus/<target>/) from the payloads, answers,
commands and property maps that the unit tests use.

    tests/fuzz/make-corpus.py            rewrites every seed directory

The manufacturer-data and camera targets read raw octets. The bus targets draw their messages from the
input with FuzzedDataProvider, so their seeds are encoded here the way that class reads them: integers
from the end of the input (most significant octet first), strings from the front. The draw order mirrors
BusValues.h and the targets' LLVMFuzzerTestOneInput: a change there needs the same change here, or the
seeds stay valid inputs but stop meaning the messages named below.
"""
import os
import shutil
import struct

HERE = os.path.dirname(os.path.abspath(__file__))
CORPUS = os.path.join(HERE, "corpus")

BASIC = "ybnqiuxtdsogh"  # BusValues.h kBasicTypes; descriptors are allowed on the factory's connection
KEY_BASIC = BASIC[:-1]
PATH_CHARS = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_"
MAX_ITEMS = 4
MAX_BASIC_ITEMS = 16


class Provider:
    """The inverse of FuzzedDataProvider for the calls the targets make."""

    def __init__(self):
        self.front = bytearray()
        self.back = bytearray()  # in the order the provider consumes it

    def in_range(self, lo, hi, value, bits=64):
        assert lo <= value <= hi, (lo, hi, value)
        span, offset, octets = hi - lo, 0, 0
        while offset < bits and (span >> offset) > 0:
            octets += 1
            offset += 8
        self.back += (value - lo).to_bytes(octets, "big") if octets else b""

    def integral(self, type_code, value):
        bits, signed = {"y": (8, False), "n": (16, True), "q": (16, False), "i": (32, True),
                        "u": (32, False), "x": (64, True), "t": (64, False)}[type_code]
        lo = -(1 << (bits - 1)) if signed else 0
        hi = (1 << (bits - 1)) - 1 if signed else (1 << bits) - 1
        self.in_range(lo, hi, value, bits)

    def boolean(self, value):
        self.back.append(1 if value else 0)

    def string(self, text, max_length):
        raw = text.encode() if isinstance(text, str) else bytes(text)
        assert len(raw) <= max_length, text
        for octet in raw:
            self.front += b"\\\\" if octet == 0x5C else bytes([octet])
        if len(raw) < max_length:
            self.front += b"\\!"  # a backslash before anything else ends the string

    def data(self):
        return bytes(self.front) + bytes(reversed(self.back))


def type_end(signature, pos):
    kind = signature[pos]
    if kind == "a":
        return type_end(signature, pos + 1)
    if kind in "({":
        close = ")" if kind == "(" else "}"
        pos += 1
        while signature[pos] != close:
            pos = type_end(signature, pos)
        return pos + 1
    return pos + 1


def split_types(signature):
    out, pos = [], 0
    while pos < len(signature):
        end = type_end(signature, pos)
        out.append(signature[pos:end])
        pos = end
    return out


class Draw:
    """Mirrors Fuzz::ChooseType and Fuzz::AppendValue, writing what makes them produce a given value."""

    def __init__(self, provider, hints):
        self.p = provider
        self.hints = hints

    def choose_type(self, signature, depth):
        if depth <= 0:
            assert signature in BASIC, "only a basic type at depth 0: " + signature
            self.p.in_range(0, len(BASIC) - 1, BASIC.index(signature))
            return
        last = len(self.hints) + 4
        if signature in self.hints:
            self.p.in_range(0, last, self.hints.index(signature))
        elif signature in BASIC:
            self.p.in_range(0, last, len(self.hints))
            self.p.in_range(0, len(BASIC) - 1, BASIC.index(signature))
        elif signature == "v":
            self.p.in_range(0, last, len(self.hints) + 1)
        elif signature.startswith("a{"):
            self.p.in_range(0, last, len(self.hints) + 3)
            self.p.in_range(0, len(KEY_BASIC) - 1, KEY_BASIC.index(signature[2]))
            self.choose_type(signature[3:-1], depth - 1)
        elif signature.startswith("a"):
            self.p.in_range(0, last, len(self.hints) + 2)
            self.choose_type(signature[1:], depth - 1)
        else:
            fields = split_types(signature[1:-1])
            assert 1 <= len(fields) <= 2, "a struct of more than two fields must be a hint: " + signature
            self.p.in_range(0, last, len(self.hints) + 4)
            self.p.in_range(1, 2, len(fields), 32)
            for field in fields:
                self.choose_type(field, depth - 1)

    def value(self, signature, value, depth):
        kind = signature[0]
        if kind in "ynqiuxt":
            self.p.integral(kind, value)
        elif kind == "b":
            self.p.boolean(value)
        elif kind == "d":
            self.p.integral("t", struct.unpack("<Q", struct.pack("<d", value))[0])
        elif kind == "s":
            self.p.string(value, 24)
        elif kind == "o":
            self.p.string(path_octets(value), 32)
        elif kind == "g":
            types = split_types(value)
            self.p.in_range(0, 2, len(types), 32)
            for t in types:
                self.choose_type(t, 1)
        elif kind == "h":
            pass
        elif kind == "v":
            contents, inner = value
            self.choose_type(contents, max(depth - 1, 0))
            self.value(contents, inner, max(depth - 1, 0))
        elif kind == "a":
            element = signature[1:]
            most = MAX_BASIC_ITEMS if len(element) == 1 and element != "v" else MAX_ITEMS
            self.p.in_range(0, most, len(value), 32)
            for item in value:
                self.value(element, item, depth)
        elif kind in "({":
            for field, item in zip(split_types(signature[1:-1]), value):
                self.value(field, item, depth)
        else:
            raise ValueError(signature)

    def properties(self, names, entries, depth=3):
        """Fuzz::AppendProperties: entries are (key, signature, value)."""
        self.p.in_range(0, 12, len(entries), 32)
        for key, signature, value in entries:
            self.pick(names, key, 16)
            self.choose_type(signature, depth)
            self.value(signature, value, depth)

    def pick(self, names, name, max_length):
        if name in names:
            self.p.in_range(0, len(names), names.index(name))
        else:
            self.p.in_range(0, len(names), len(names))
            self.p.string(name, max_length)


def path_octets(path):
    """Octets that Fuzz::BusPath turns into `path`."""
    out = bytearray()
    for i, segment in enumerate(p for p in path.split("/") if p):
        if i:
            out.append(0x08)  # a multiple of 8 ends a non-empty segment
        for c in segment:
            k = PATH_CHARS.index(c)
            out.append(next(o for o in range(k, 256, len(PATH_CHARS)) if o % 8 and o != 0x5C))
    return bytes(out)


# ---------------------------------------------------------------------------------------------------------
# fuzz_manufacturer_data: company 0x05F3's bytes as received

CAMERA = bytes([0x07, 0x00, 0x03, 0x02, 0xC0, 0xA8, 0x01, 0x14]) + b"SSID"

MANUFACTURER = {
    "v3-camera-ssid": CAMERA,
    "v3-without-text": CAMERA[:8],
    "v4-nonprintable-text": bytes([0x07, 0x00, 0x04, 0x02, 0xC0, 0xA8, 0x01, 0x14, 0x4B, 0x09, 0x4C, 0x41]),
    "v3-printable-bounds": bytes([0x01, 0x00, 0x03, 0x00, 0, 0, 0, 0, 0x1F, 0x20, 0x7E, 0x7F, 0x80, 0xFF, 0x00,
                                  0x41]),
    "type-high-octet-ignored": bytes([0x07, 0xFF, 0x03, 0x01]),
    "two-octets-throw": bytes([0x07, 0x00]),
    "one-octet": bytes([0x07]),
    "empty": b"",
    "unknown-version-9": bytes([0x07, 0x00, 0x09]),
    "unknown-version-9-long": bytes([0x07, 0x00, 0x09, 0x02, 0xC0, 0xA8, 0x01, 0x14]),
    "unknown-version-2": bytes([0x07, 0x00, 0x02, 0x02]),
    "three-octets": bytes([0x05, 0x00, 0x03]),
    "four-octets": bytes([0x05, 0x00, 0x03, 0x04]),
    "five-octets": bytes([0x07, 0x00, 0x03, 0x02, 0xC0]),
    "six-octets": bytes([0x07, 0x00, 0x03, 0x02, 0xC0, 0xA8]),
    "seven-octets-v4": bytes([0x07, 0x00, 0x04, 0x02, 0xC0, 0xA8, 0x01]),
    "text-at-ninth": CAMERA[:8] + b"Z",
    "text-ap": CAMERA[:8] + b"AP",
    "type-0": bytes([0x00]) + CAMERA[1:],
    "type-10": bytes([0x0A]) + CAMERA[1:],
    "type-255": bytes([0xFF]) + CAMERA[1:],
    "type-9-v4": bytes([0x09, 0x00, 0x04]) + CAMERA[3:],
    "name-not-utf8": b"Kelp\xff\xfe",
    "name-utf8": "Caméra Süd".encode(),
}

# ---------------------------------------------------------------------------------------------------------
# fuzz_camera_notification: [head][value]..., head = length | 0x80 to publish after the value


def notifications(*values, publish=True):
    out = bytearray()
    for v in values:
        v = v.encode("latin-1") if isinstance(v, str) else bytes(v)
        out.append(len(v) | (0x80 if publish else 0))
        out += v
    return bytes(out)


CAMERA_ANSWERS = {
    "version": notifications("V12\r"),
    "version-three-octets": notifications("V1\r"),
    "version-not-digits": notifications("Vab\r"),
    "power": notifications("PZ\r"),
    "power-unnamed-letter": notifications("PQ\r"),
    "power-two-octets": notifications("PZ"),
    "wifi": notifications("F5.0R\r"),
    "wifi-without-cr": notifications("F5.0R"),
    "wifi-four-octets": notifications("F5.0"),
    "power-four-octets": notifications("PZ\r\r"),
    "unknown": notifications(b"\x01\xab"),
    "empty-value": notifications(b""),
    "mixed-run": notifications("PY\r", "F2.4G\r", "V03\r", "F5.0C\r"),
    "wifi-not-utf8": notifications(b"F\xc05.R\r"),
    "answers-then-publish": notifications("PZ\r", "F5.0R\r", publish=False) + notifications("V12\r"),
    "alternating": notifications("PZ\r", "F5.0R\r", "V12\r", "PU\r", "F2.4B\r", "V07\r"),
    "commands-echoed": notifications("RV\r", "RP\r", "RF\r", "WPZ\r", "WF5.0G\r"),
}

# ---------------------------------------------------------------------------------------------------------
# fuzz_property_map

STORED = sorted(["s", "o", "g", "b", "y", "n", "q", "i", "u", "x", "t", "d", "as", "ao", "ag", "ab", "ay", "an",
                 "aq", "ai", "au", "ax", "at", "ad", "a(siib)"])
PROPERTY_MAP_HINTS = STORED + ["a{sv}", "a{ss}", "v", "(ii)", "a(ss)", "(sassas)", "a(sii)", "aas"]
PROPERTY_MAP_NAMES = ["Powered", "IPAddress", "ActivePowerSource", "BatteryTypes", "AccessPoints",
                      "Frequencies", "SSID", "advertSchema"]
CHANGED, GET_ALL, RAW = 0, 1, 2

EVERY_SCALAR = [
    ("S", "s", "text é"), ("B", "b", True), ("U", "u", 4000000000), ("I", "i", -7), ("N", "n", -300),
    ("Q", "q", 65000), ("T", "t", 2**64 - 1), ("X", "x", -2**63), ("D", "d", 2.5), ("Y", "y", 0xFE),
    ("O", "o", "/com/quorbel/x"), ("G", "g", "a{sv}"),
]
ARRAYS = [
    ("BatteryVoltages", "ai", [16900, -1]), ("BatteryTypes", "au", [4]), ("Frequencies", "as", ["2.4", "5.0"]),
    ("Raw", "ay", [0x00, 0x80, 0xFF]), ("Empty", "ai", []), ("Flags", "ab", [True, False, True]),
    ("AccessPoints", "a(siib)", [("unit-ap", 6, -40, True), ("neighbour", 11, -71, False)]),
]
UNSUPPORTED = [
    ("Before", "u", 1), ("Dict", "a{sv}", [("k", ("i", 5))]), ("Struct", "(ii)", (1, 2)),
    ("Nested", "v", ("s", "inner")), ("Icons", "(sassas)", ("x", ["a"], "y", ["b"])),
    ("OtherStructs", "a(ss)", [("a", "b")]), ("After", "s", "still here"),
]
UNTYPED = [("IPAddress", "s", "10.0.0.5"), ("ActivePowerSource", "i", 2), ("Skipped", "a{ss}", [])]
EMPTY_PATHS = [("Before", "u", 7), ("Paths", "ao", []), ("Signatures", "ag", []), ("After", "s", "kept")]
# every type the parsers read, each array empty and not, and one type they do not read among them
EVERY_REGISTERED = [
    ("s", "s", "text"), ("o", "o", "/a/b"), ("g", "g", "a{sv}"), ("b", "b", True), ("y", "y", 200),
    ("n", "n", -3), ("q", "q", 65535), ("i", "i", -70000), ("u", "u", 70000), ("x", "x", -5000000000),
    ("t", "t", 5000000000), ("d", "d", 2.5), ("unexpected", "a{ss}", [("k", "v")]),
    ("as", "as", ["x", "y"]), ("ao", "ao", ["/x", "/y"]), ("ag", "ag", ["i"]), ("ab", "ab", [True, False]),
    ("ay", "ay", [1, 2]), ("an", "an", [-1]), ("aq", "aq", [1]), ("ai", "ai", [-1]), ("au", "au", [1]),
    ("ax", "ax", [-1]), ("at", "at", [1]), ("ad", "ad", [0.5]), ("a(siib)", "a(siib)", [("ap", 1, -50, True)]),
] + [("empty " + t, t, []) for t in ["as", "ao", "ag", "ab", "ay", "an", "aq", "ai", "au", "ax", "at", "ad",
                                     "a(siib)"]] + [("last", "u", 9)]

def property_map(shape, entries=None, raw=None):
    p = Provider()
    d = Draw(p, PROPERTY_MAP_HINTS)
    p.in_range(0, 2, shape, 32)
    if shape in (CHANGED, GET_ALL):
        d.properties(PROPERTY_MAP_NAMES, entries)
        if shape == CHANGED:
            d.value("as", [], 0)
    else:
        p.in_range(0, 3, len(raw), 32)
        for signature, value in raw:
            d.choose_type(signature, 3)
            d.value(signature, value, 3)
    return p.data()


PROPERTY_MAP = {
    "changed-every-scalar": property_map(CHANGED, EVERY_SCALAR),
    "changed-arrays": property_map(CHANGED, ARRAYS),
    "changed-unsupported-skipped": property_map(CHANGED, UNSUPPORTED),
    "changed-powered": property_map(CHANGED, [("Powered", "b", False)]),
    "changed-empty": property_map(CHANGED, []),
    "changed-untyped": property_map(CHANGED, UNTYPED),
    "changed-empty-paths": property_map(CHANGED, EMPTY_PATHS),
    # twelve entries at most per dictionary
    **{f"getall-every-registered-{i // 12 + 1}": property_map(GET_ALL, EVERY_REGISTERED[i:i + 12])
       for i in range(0, len(EVERY_REGISTERED), 12)},
    "getall-arrays": property_map(GET_ALL, ARRAYS),
    "raw-two-strings": property_map(RAW, raw=[("s", "iface"), ("s", "x")]),
    "raw-empty-body": property_map(RAW, raw=[]),
    "raw-int": property_map(RAW, raw=[("i", 5)]),
    "raw-string-then-dictionary": property_map(RAW, raw=[("s", "org.example.Iface"),
                                                          ("a{sv}", [("Powered", ("b", True))])]),
}

# ---------------------------------------------------------------------------------------------------------
# fuzz_bluez_properties

IFACES = ["org.bluez.Adapter1", "org.bluez.Device1", "org.bluez.GattService1", "org.bluez.GattCharacteristic1"]
ADAPTER, DEVICE, SERVICE, CHARACTERISTIC = range(4)
INTERFACE_NAMES = IFACES + ["org.freedesktop.DBus.Introspectable", "org.bluez.Battery1", "org.bluez.device1"]
PROP_NAMES = [  # Wire.cpp kPropNames, then two the client does not mirror
    "Address", "Name", "Alias", "Powered", "Pairable", "Discoverable", "Discovering",
    "Address", "Name", "Alias", "RSSI", "Class", "Appearance", "Paired", "Trusted", "Connected",
    "ServicesResolved", "UUIDs", "ManufacturerData", "Adapter",
    "UUID", "Primary", "Device",
    "UUID", "Service", "Flags", "Notifying", "Value",
    "Icon", "TxPower",
]
BLUEZ_HINTS = ["s", "o", "b", "y", "n", "q", "i", "u", "as", "ao", "ay", "a{qv}", "x", "a{sv}", "v", "ag",
               "a{sa{sv}}"]
INTERFACES, PROPERTIES, INVALIDATED, BLUEZ_RAW = range(4)

DEVICE_PROPS = [
    ("Address", "s", "C0:FF:EE:00:00:01"), ("Name", "s", "KelpCam 7"), ("RSSI", "n", -52),
    ("Class", "u", 0x240404), ("Paired", "b", True), ("Connected", "b", False),
    ("UUIDs", "as", ["0000fdea-0000", "00001800-0000"]), ("Adapter", "o", "/org/bluez/hci0"),
    ("Appearance", "q", 0x0080),
]
MANUFACTURER_DATA = [("ManufacturerData", "a{qv}", [(0x05F3, ("ay", [1, 2, 3])), (0x004C, ("s", "not bytes")),
                                                    (0x0006, ("ay", []))])]
CAMERA_DEVICE = [("Address", "s", "00:11:22:33:44:55"), ("Name", "s", "KelpCam-0042"), ("RSSI", "n", -58),
                 ("ManufacturerData", "a{qv}", [(0x05F3, ("ay", list(CAMERA)))])]
UNKNOWN_PROPS = [("Icon", "s", "camera-video"), ("TxPower", "x", -4), ("Name", "a{ss}", [("odd", "type")]),
                 ("Address", "s", "AA:BB:CC:DD:EE:FF")]
ADAPTER_PROPS = [("Address", "s", "00:AA:01:00:00:23"), ("Powered", "b", True), ("Discoverable", "b", False),
                 ("RSSI", "n", -1)]
CHARACTERISTIC_PROPS = [("UUID", "s", "fdea0002-0000-1000-8000"), ("Service", "o", "/org/bluez/hci0/dev_C0/s0010"),
                        ("Flags", "as", ["read", "notify"]), ("Value", "ay", [ord("R"), ord("Z")])]
SERVICE_PROPS = [("UUID", "s", "0000fdea-0000-1000-8000"), ("Primary", "b", True),
                 ("Device", "o", "/org/bluez/hci0/dev_C0")]


def bluez(shape, iface=0, interfaces=None, entries=None, names=None, raw=None):
    p = Provider()
    d = Draw(p, BLUEZ_HINTS)
    p.in_range(0, 3, shape, 32)
    p.in_range(0, 3, iface, 32)
    if shape == INTERFACES:
        p.in_range(0, 6, len(interfaces), 32)
        for name, props in interfaces:
            d.pick(INTERFACE_NAMES, name, 32)
            d.properties(PROP_NAMES, props)
    elif shape == PROPERTIES:
        d.properties(PROP_NAMES, entries)
    elif shape == INVALIDATED:
        p.in_range(0, 8, len(names), 32)
        for name in names:
            d.pick(PROP_NAMES, name, 16)
    else:
        p.in_range(0, 3, len(raw), 32)
        for signature, value in raw:
            d.choose_type(signature, 3)
            d.value(signature, value, 3)
    return p.data()


BLUEZ = {
    "device-every-read-property": bluez(PROPERTIES, DEVICE, entries=DEVICE_PROPS),
    "device-manufacturer-data": bluez(PROPERTIES, DEVICE, entries=MANUFACTURER_DATA),
    "device-camera": bluez(PROPERTIES, DEVICE, entries=CAMERA_DEVICE),
    "device-unknown-properties": bluez(PROPERTIES, DEVICE, entries=UNKNOWN_PROPS),
    "adapter-properties": bluez(PROPERTIES, ADAPTER, entries=ADAPTER_PROPS),
    "adapter-given-device-properties": bluez(PROPERTIES, ADAPTER, entries=DEVICE_PROPS),
    "service-properties": bluez(PROPERTIES, SERVICE, entries=SERVICE_PROPS),
    "interfaces-characteristic": bluez(INTERFACES, interfaces=[
        ("org.freedesktop.DBus.Introspectable", []), ("org.bluez.GattCharacteristic1", CHARACTERISTIC_PROPS),
        ("org.bluez.Battery1", [("Percentage", "y", 80)])]),
    "interfaces-camera-added": bluez(INTERFACES, interfaces=[
        ("org.freedesktop.DBus.Introspectable", []), ("org.bluez.Device1", CAMERA_DEVICE + DEVICE_PROPS[3:6])]),
    "interfaces-adapter-and-service": bluez(INTERFACES, interfaces=[
        ("org.bluez.Adapter1", ADAPTER_PROPS), ("org.bluez.GattService1", SERVICE_PROPS)]),
    "interfaces-empty": bluez(INTERFACES, interfaces=[]),
    "invalidated-device": bluez(INVALIDATED, DEVICE, names=["RSSI", "Icon", "ManufacturerData", "Powered"]),
    "invalidated-adapter": bluez(INVALIDATED, ADAPTER, names=["Powered", "Discovering", "RSSI"]),
    "raw-not-a-dictionary": bluez(BLUEZ_RAW, DEVICE, raw=[("s", "org.bluez.Device1")]),
    "raw-empty-body": bluez(BLUEZ_RAW, DEVICE, raw=[]),
    "raw-path-then-interfaces": bluez(BLUEZ_RAW, DEVICE, raw=[
        ("o", "/org/bluez/hci0/dev_C0"), ("a{sa{sv}}", [("org.bluez.Device1", [("RSSI", ("n", -60))])])]),
}


# ---------------------------------------------------------------------------------------------------------
# fuzz_dbus_objects: a run of calls, each [path][member][own arguments or any]

OBJECT_PATH = "/com/quorbel/common/Bluetooth1"
RADIO = "com.quorbel.common.Bluetooth1.Radio"
ADVERT = "com.quorbel.common.Bluetooth1.Advert"
SCANNER = "com.quorbel.common.Bluetooth1.Scanner"
PROPS = "org.freedesktop.DBus.Properties"
PEER = "org.freedesktop.DBus.Peer"
INTROSPECTABLE = "org.freedesktop.DBus.Introspectable"
OBJECT_MANAGER = "org.freedesktop.DBus.ObjectManager"
NOPE = "com.quorbel.common.Bluetooth1.Nope"
MEMBERS = [  # DbusObjectsFuzz.cpp kMembers, in order
    (RADIO, "ConfigKelpBle"), (SCANNER, "Scan"), (SCANNER, "ReadKelpBle"), (PROPS, "Get"), (PROPS, "Set"),
    (PROPS, "GetAll"), (INTROSPECTABLE, "Introspect"), (PEER, "Ping"), (PEER, "GetMachineId"),
    (OBJECT_MANAGER, "GetManagedObjects"),
]
CALL_INTERFACES = [RADIO, ADVERT, SCANNER, PROPS, PEER, INTROSPECTABLE, OBJECT_MANAGER, NOPE]
CALL_MEMBERS = [m for _, m in MEMBERS] + ["Powered", "ConfiguredKelpBle", "DiscoveredRemoteCamera",
                                         "NewKelpBleData", "PropertiesChanged", "InterfacesAdded"]
CAMERA_MAC, OTHER_UNIT_MAC = "C0:FF:EE:00:00:01", "AA:00:00:00:00:02"
ADDRESSES = [CAMERA_MAC, OTHER_UNIT_MAC, "C0:FF:EE:00:00:02", "c0:ff:ee:00:00:01", ""]
INTERFACE_ARGS = [RADIO, ADVERT, SCANNER, "", PROPS, PEER, INTROSPECTABLE, OBJECT_MANAGER, NOPE]
NAME_ARGS = ["Powered", "Pairable", "Discoverable", "Advertising", "AdvertSchema", "AutoScan",
             "AutoScanRateSecs", "ScannedDevices", "RemoteCameras", "Nope", "ConfigKelpBle", "powered"]
DBUS_OBJECTS_HINTS = ["b", "i", "s", "u", "v", "as", "a{sv}", "ay"]
MEMBER_CHARS = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz_0123456789"
MEMBER_LEADING = 53  # letters and '_'


def member_octets(name):
    """Octets that the target's BusMember turns into `name`."""
    out = bytearray()
    for i, c in enumerate(name):
        modulus = MEMBER_LEADING if i == 0 else len(MEMBER_CHARS)
        k = MEMBER_CHARS.index(c)
        out.append(next(o for o in range(k, 256, modulus) if o != 0x5C))
    return bytes(out)


def call(member, *args, path=OBJECT_PATH, interface=None, named=False, raw=None, extra=None):
    """One call. `member` of MEMBERS, picked by its index unless `named` (then interface and member are
    drawn apart: an interface of CALL_INTERFACES, None for no interface, or "com.quorbel.fuzz.X" for a
    made-up one). `args` are the member's own arguments (Set's value as (signature, value)), `extra` one
    (signature, value) after them; `raw`, a list of (signature, value), are any arguments instead."""
    return (path, member, interface, named, args, raw, extra)


def encode_call(p, d, planned):
    path, member, interface, named, args, raw, extra = planned
    if path == OBJECT_PATH:
        p.in_range(0, 2, 0, 32)
    elif path == "/":
        p.in_range(0, 2, 1, 32)
    else:
        p.in_range(0, 2, 2, 32)
        p.string(path_octets(path), 32)
    if not named:
        interface = next(i for i, m in MEMBERS if m == member)
        p.in_range(0, len(MEMBERS), MEMBERS.index((interface, member)))
    else:
        p.in_range(0, len(MEMBERS), len(MEMBERS))
        if interface is None:
            p.in_range(0, len(CALL_INTERFACES) + 1, len(CALL_INTERFACES))
        elif interface in CALL_INTERFACES:
            p.in_range(0, len(CALL_INTERFACES) + 1, CALL_INTERFACES.index(interface))
        else:
            assert interface.startswith("com.quorbel.fuzz."), interface
            p.in_range(0, len(CALL_INTERFACES) + 1, len(CALL_INTERFACES) + 1)
            p.string(member_octets(interface[len("com.quorbel.fuzz."):]), 24)
        if member in CALL_MEMBERS:
            p.in_range(0, len(CALL_MEMBERS), CALL_MEMBERS.index(member))
        else:
            p.in_range(0, len(CALL_MEMBERS), len(CALL_MEMBERS))
            p.string(member_octets(member), 24)
    p.boolean(raw is None)
    if raw is None:
        if (interface, member) not in MEMBERS:
            assert not args, "no own arguments for an unknown member"
            return
        if member == "ConfigKelpBle":
            d.pick(ADDRESSES, args[0], 80)
        if member in ("Get", "Set", "GetAll"):
            d.pick(INTERFACE_ARGS, args[0], 48)
        if member in ("Get", "Set"):
            d.pick(NAME_ARGS, args[1], 32)
        if member == "Set":
            d.value("v", args[2], 3)
        p.in_range(0, 3, 0 if extra is None else 3, 32)
        if extra is not None:
            d.choose_type(extra[0], 3)
            d.value(extra[0], extra[1], 3)
    else:
        p.in_range(0, 3, len(raw), 32)
        for signature, value in raw:
            d.choose_type(signature, 3)
            d.value(signature, value, 3)


def dbus_objects(*calls):
    p = Provider()
    d = Draw(p, DBUS_OBJECTS_HINTS)
    assert 1 <= len(calls) <= 8
    p.in_range(1, 8, len(calls), 32)
    for planned in calls:
        encode_call(p, d, planned)
    return p.data()


PROPERTY_HOMES = {"Powered": RADIO, "Pairable": RADIO, "Discoverable": RADIO, "Advertising": ADVERT,
                  "AdvertSchema": ADVERT, "AutoScan": SCANNER, "AutoScanRateSecs": SCANNER,
                  "ScannedDevices": SCANNER, "RemoteCameras": SCANNER}
SETS = [("Powered", ("b", False)), ("Pairable", ("b", False)), ("Discoverable", ("b", True)),
        ("Advertising", ("b", False)), ("AdvertSchema", ("i", 4)), ("AutoScan", ("b", False)),
        ("AutoScanRateSecs", ("i", -5))]


def get(name, interface=None):
    return call("Get", interface if interface is not None else PROPERTY_HOMES[name], name)


def set_(name, value, interface=None):
    return call("Set", interface if interface is not None else PROPERTY_HOMES[name], name, value)


DBUS_OBJECTS = {
    "config-camera": dbus_objects(call("ConfigKelpBle", CAMERA_MAC)),
    "config-other-unit": dbus_objects(call("ConfigKelpBle", OTHER_UNIT_MAC)),
    "config-unlisted": dbus_objects(call("ConfigKelpBle", "C0:FF:EE:00:00:02")),
    "config-lower-case": dbus_objects(call("ConfigKelpBle", "c0:ff:ee:00:00:01")),
    "config-empty": dbus_objects(call("ConfigKelpBle", "")),
    "config-long-text": dbus_objects(call("ConfigKelpBle", "%s%n C0-FF-EE-00-00-01 " + "x" * 40 + " é ∂")),
    "scan": dbus_objects(call("Scan")),
    "read-kelp-ble": dbus_objects(call("ReadKelpBle")),
    "describe-object": dbus_objects(call("Introspect")),
    "ping": dbus_objects(call("Ping")),
    "machine-id": dbus_objects(call("GetMachineId")),
    "managed-objects": dbus_objects(call("GetManagedObjects")),
    **{"get-" + name.lower(): dbus_objects(get(name)) for name in PROPERTY_HOMES},
    **{"set-" + name.lower(): dbus_objects(set_(name, value), get(name)) for name, value in SETS},
    "set-schema-fallback": dbus_objects(set_("AdvertSchema", ("i", 9)), get("AdvertSchema")),
    "set-powered-as-text": dbus_objects(set_("Powered", ("s", "off")), get("Powered")),
    "set-rate-unsigned": dbus_objects(set_("AutoScanRateSecs", ("u", 7)), get("AutoScanRateSecs")),
    "set-read-only": dbus_objects(set_("ScannedDevices", ("s", "[]")), get("ScannedDevices")),
    "set-other-interface": dbus_objects(set_("Advertising", ("b", False), RADIO), get("Advertising")),
    "get-unknown-property": dbus_objects(get("Nope", RADIO)),
    "get-empty-interface": dbus_objects(get("Powered", "")),
    **{"getall-" + name: dbus_objects(call("GetAll", interface))
       for name, interface in [("radio", RADIO), ("advert", ADVERT), ("scanner", SCANNER), ("every", ""),
                               ("properties", PROPS), ("unknown", "org.example.Nope")]},
    "scan-with-argument": dbus_objects(call("Scan", raw=[("s", "x")])),
    "config-no-argument": dbus_objects(call("ConfigKelpBle", raw=[])),
    "config-number": dbus_objects(call("ConfigKelpBle", raw=[("i", 5)])),
    "get-without-name": dbus_objects(call("Get", raw=[("s", "Radio")])),
    "set-drawn-as-any": dbus_objects(call("Set", raw=[("s", ""), ("s", "Advertising"), ("v", ("b", False))]),
                                     get("Advertising")),
    "get-extra-argument": dbus_objects(call("Get", ADVERT, "AdvertSchema", extra=("i", 1))),
    "set-extra-argument": dbus_objects(call("Set", SCANNER, "AutoScanRateSecs", ("i", 60), extra=("s", "more")),
                                       get("AutoScanRateSecs")),
    "config-camera-extra-argument": dbus_objects(call("ConfigKelpBle", CAMERA_MAC, extra=("b", True))),
    "unknown-member": dbus_objects(call("Reboot", interface=RADIO, named=True)),
    "signal-as-method": dbus_objects(call("DiscoveredRemoteCamera", interface=SCANNER, named=True)),
    "property-as-method": dbus_objects(call("Powered", interface=RADIO, named=True)),
    "scan-without-interface": dbus_objects(call("Scan", interface=None, named=True)),
    "scan-on-made-up-interface": dbus_objects(call("Scan", interface="com.quorbel.fuzz.Nope", named=True)),
    "scan-on-root": dbus_objects(call("Scan", path="/")),
    "managed-objects-on-root": dbus_objects(call("GetManagedObjects", path="/")),
    "describe-parent": dbus_objects(call("Introspect", path="/com/quorbel")),
    "mixed-run": dbus_objects(set_("Advertising", ("b", False)), call("Scan"), get("Advertising"),
                              call("ConfigKelpBle", CAMERA_MAC), call("GetAll", SCANNER),
                              set_("AutoScan", ("b", False)), call("Scan"), call("GetManagedObjects")),
}


def write(target, seeds):
    directory = os.path.join(CORPUS, target)
    shutil.rmtree(directory, ignore_errors=True)
    os.makedirs(directory)
    for name, data in seeds.items():
        with open(os.path.join(directory, name), "wb") as f:
            f.write(data)
    print(f"{target}: {len(seeds)} seeds")


def main():
    write("fuzz_manufacturer_data", MANUFACTURER)
    write("fuzz_camera_notification", CAMERA_ANSWERS)
    write("fuzz_property_map", PROPERTY_MAP)
    write("fuzz_bluez_properties", BLUEZ)
    write("fuzz_dbus_objects", DBUS_OBJECTS)


if __name__ == "__main__":
    main()
