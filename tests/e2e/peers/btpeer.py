"""Helpers shared by the guest-side peer programs: BlueZ D-Bus names, logging with a time stamp,
conversion of dbus values into plain Python for JSON, and polling.

dbus is imported where it is used: in the emulated guest the import alone costs two seconds, which the
programs that only read a trace should not pay."""

import json
import socket
import sys
import time

BLUEZ = "org.bluez"
OBJECT_MANAGER = "org.freedesktop.DBus.ObjectManager"
PROPERTIES = "org.freedesktop.DBus.Properties"
ADAPTER = "org.bluez.Adapter1"
DEVICE = "org.bluez.Device1"
GATT_SERVICE = "org.bluez.GattService1"
GATT_CHARACTERISTIC = "org.bluez.GattCharacteristic1"
GATT_MANAGER = "org.bluez.GattManager1"
ADVERTISING_MANAGER = "org.bluez.LEAdvertisingManager1"
ADVERTISEMENT = "org.bluez.LEAdvertisement1"

COMPANY_ID = 0x05F3

_T0 = time.monotonic()


def log(*parts):
    print("[%7.3f]" % (time.monotonic() - _T0), *parts, flush=True)


def result(ok, **fields):
    """One machine-readable line that the scenario script greps for."""
    fields["ok"] = bool(ok)
    print("RESULT " + json.dumps(fields, sort_keys=True), flush=True)


class RawHci:
    """Commands sent straight to a controller through a raw HCI socket, as hcitool sends them. No
    answer is awaited: the kernel queues a socket's commands and sends them in order."""

    def __init__(self, index):
        self.sock = socket.socket(socket.AF_BLUETOOTH, socket.SOCK_RAW, socket.BTPROTO_HCI)
        self.sock.bind((index,))

    def command(self, opcode, params=b""):
        params = bytes(params)
        self.sock.send(bytes([0x01, opcode & 0xFF, opcode >> 8, len(params)]) + params)


class AdvertisingPulser(RawHci):
    """Switches the controller's advertising off and on again, as cheaply as possible: the emulated
    controller reports an advertiser to scanners only at such an "on" edge, and a scan pass of the
    unit lasts a few tens of milliseconds. What the controller advertises is left as it was set."""

    SET_ADVERTISE_ENABLE = 0x200A  # OGF 0x08, OCF 0x000a

    def enable(self, on):
        self.command(self.SET_ADVERTISE_ENABLE, [1 if on else 0])

    def pulse(self):
        self.enable(False)
        self.enable(True)


def managed_objects(bus):
    import dbus

    manager = dbus.Interface(bus.get_object(BLUEZ, "/"), OBJECT_MANAGER)
    return manager.GetManagedObjects()


def adapter_path(name):
    return "/org/bluez/" + name


def plain(value):
    """dbus values to JSON-friendly Python: byte arrays become lower-case hex text."""
    import dbus

    if isinstance(value, dbus.Array) and value.signature == "y":
        return bytes(value).hex()
    if isinstance(value, dbus.Dictionary):
        out = {}
        for key, item in value.items():
            if isinstance(key, (dbus.UInt16, dbus.Int16)):
                key = "0x%04X" % int(key)
            out[str(key)] = plain(item)
        return out
    if isinstance(value, (dbus.Array, dbus.Struct, list, tuple)):
        return [plain(item) for item in value]
    if isinstance(value, dbus.Boolean):
        return bool(value)
    if isinstance(value, (dbus.Byte, dbus.Int16, dbus.UInt16, dbus.Int32, dbus.UInt32, dbus.Int64,
                          dbus.UInt64)):
        return int(value)
    if isinstance(value, (dbus.String, dbus.ObjectPath, dbus.Signature)):
        return str(value)
    if isinstance(value, dbus.ByteArray):
        return bytes(value).hex()
    return value


def wait_until(predicate, timeout_s, interval_s=0.1):
    deadline = time.monotonic() + timeout_s
    while True:
        value = predicate()
        if value:
            return value
        if time.monotonic() >= deadline:
            return None
        time.sleep(interval_s)


def die(message):
    log("FAILED:", message)
    result(False, error=message)
    sys.exit(1)
