"""Helpers shared by the guest-side peer programs: BlueZ D-Bus names, logging with a time stamp,
conversion of dbus values into plain Python for JSON, and polling."""

import json
import sys
import time

import dbus

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


def managed_objects(bus):
    manager = dbus.Interface(bus.get_object(BLUEZ, "/"), OBJECT_MANAGER)
    return manager.GetManagedObjects()


def adapter_path(name):
    return "/org/bluez/" + name


def plain(value):
    """dbus values to JSON-friendly Python: byte arrays become lower-case hex text."""
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
