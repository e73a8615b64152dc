#!/usr/bin/python3
"""camera_peripheral.py [--adapter hci1] [--transcript FILE]

Plays a remote camera on the peer adapter through BlueZ's D-Bus API: a GATT application with the
camera service (fdeafdea-...), its command characteristic (fdea0001-..., written) and its answer
characteristic (fdea0002-..., notifies), and an LE advertisement whose manufacturer data under
0x05F3 carry a schema-3 payload of device type 7 (the remote camera).

The camera answers every command by notification, a little later, as a real camera does:
  "RV\\r"      -> "V12\\r"
  "RP\\r"      -> "P<power>\\r"               power 'U' (off) until switched
  "RF\\r"      -> "F<band><wifi>\\r"          e.g. "F2.4G\\r"
  "WP<x>\\r"   -> power becomes x, answers "P<x>\\r"; switching on boots the Wi-Fi (below)
  "WF<b>G\\r"  -> band becomes b; with power on the Wi-Fi boots again, with power off it stays
                 unavailable and answers "F<b>G\\r"
A Wi-Fi boot notifies "F<band>B\\r" at once and "F<band>R\\r" about a second later, unasked.
Anything else is recorded and left unanswered. Every write and every notification goes to the
transcript (JSON lines) so that the scenario can check what the unit sent.

Until a central connects, advertising is switched off and on again every --pulse-ms milliseconds
(AdvertisingPulser): the emulated controller only reports advertising at the moment advertising or
scanning is switched on."""

import argparse
import json
import signal
import sys
import time

import dbus
import dbus.mainloop.glib
import dbus.service
from gi.repository import GLib

from btpeer import (ADAPTER, ADVERTISEMENT, ADVERTISING_MANAGER, BLUEZ, COMPANY_ID, DEVICE,
                    GATT_CHARACTERISTIC, GATT_MANAGER, GATT_SERVICE, OBJECT_MANAGER, PROPERTIES,
                    AdvertisingPulser, adapter_path, log, managed_objects)

SERVICE_UUID = "fdeafdea-0000-1000-8000-00805f9b34fb"
COMMAND_UUID = "fdea0001-0000-1000-8000-00805f9b34fb"
ANSWER_UUID = "fdea0002-0000-1000-8000-00805f9b34fb"
APP_PATH = "/com/quorbel/e2e/camera"
ADV_PATH = APP_PATH + "/advertisement0"

ANSWER_DELAY_MS = 60
WIFI_BOOT_MS = 1200


class NotPermitted(dbus.exceptions.DBusException):
    _dbus_error_name = "org.bluez.Error.NotPermitted"


class Camera:
    """The camera's state and its command language; knows nothing of D-Bus."""

    def __init__(self, notify, record):
        self.power = "U"
        self.wifi = "G"
        self.band = "2.4"
        self.version = "12"
        self.boots = 0
        self._notify = notify
        self._record = record

    def later(self, delay_ms, text):
        def fire():
            self._notify(text.encode("ascii"))
            return False

        GLib.timeout_add(delay_ms, fire)

    def boot_wifi(self):
        """The access point restarts: "booting" at once, "ready" a while later, both told unasked."""
        self.wifi = "B"
        self.later(ANSWER_DELAY_MS, "F%sB\r" % self.band)
        self.boots += 1
        generation = self.boots

        def ready():
            if self.boots == generation and self.power == "Z":
                self.wifi = "R"
                self._notify(("F%sR\r" % self.band).encode("ascii"))
            return False

        GLib.timeout_add(WIFI_BOOT_MS, ready)

    def command(self, data):
        self._record({"event": "write", "text": data.decode("latin-1")})
        text = data.decode("latin-1")
        if text == "RV\r":
            self.later(ANSWER_DELAY_MS, "V%s\r" % self.version)
        elif text == "RP\r":
            self.later(ANSWER_DELAY_MS, "P%s\r" % self.power)
        elif text == "RF\r":
            self.later(ANSWER_DELAY_MS, "F%s%s\r" % (self.band, self.wifi))
        elif len(text) == 4 and text.startswith("WP") and text.endswith("\r"):
            was_on = self.power == "Z"
            self.power = text[2]
            self.later(ANSWER_DELAY_MS, "P%s\r" % self.power)
            if self.power != "Z":
                self.wifi = "G"
            elif not was_on:
                self.boot_wifi()
        elif len(text) == 7 and text.startswith("WF") and text.endswith("G\r"):
            self.band = text[2:5]
            if self.power != "Z":
                self.later(ANSWER_DELAY_MS, "F%sG\r" % self.band)
            else:
                self.boot_wifi()
        else:
            self._record({"event": "unknown", "hex": data.hex()})


class Advertisement(dbus.service.Object):
    def __init__(self, bus, name, payload):
        super().__init__(bus, ADV_PATH)
        self.name = name
        self.payload = payload

    @dbus.service.method(PROPERTIES, in_signature="s", out_signature="a{sv}")
    def GetAll(self, interface):
        if interface != ADVERTISEMENT:
            return {}
        return {
            "Type": dbus.String("peripheral"),
            "ManufacturerData": dbus.Dictionary(
                {dbus.UInt16(COMPANY_ID): dbus.Array(self.payload, signature="y")}, signature="qv"),
            "LocalName": dbus.String(self.name),
        }

    @dbus.service.method(ADVERTISEMENT)
    def Release(self):
        log("advertisement released")


class Service(dbus.service.Object):
    def __init__(self, bus, path, uuid):
        super().__init__(bus, path)
        self.path = path
        self.uuid = uuid
        self.characteristics = []

    def properties(self):
        return {GATT_SERVICE: {
            "UUID": dbus.String(self.uuid),
            "Primary": dbus.Boolean(True),
            "Characteristics": dbus.Array([c.path for c in self.characteristics], signature="o"),
        }}

    @dbus.service.method(PROPERTIES, in_signature="s", out_signature="a{sv}")
    def GetAll(self, interface):
        return self.properties().get(interface, {})


class Characteristic(dbus.service.Object):
    def __init__(self, bus, service, index, uuid, flags, on_write=None):
        self.path = "%s/char%d" % (service.path, index)
        super().__init__(bus, self.path)
        self.service = service
        self.uuid = uuid
        self.flags = flags
        self.on_write = on_write
        self.value = b""
        self.notifying = False
        service.characteristics.append(self)

    def properties(self):
        return {GATT_CHARACTERISTIC: {
            # must be an object path: a plain string makes RegisterApplication fail
            "Service": dbus.ObjectPath(self.service.path),
            "UUID": dbus.String(self.uuid),
            "Flags": dbus.Array(self.flags, signature="s"),
        }}

    @dbus.service.method(PROPERTIES, in_signature="s", out_signature="a{sv}")
    def GetAll(self, interface):
        return self.properties().get(interface, {})

    @dbus.service.signal(PROPERTIES, signature="sa{sv}as")
    def PropertiesChanged(self, interface, changed, invalidated):
        pass

    @dbus.service.method(GATT_CHARACTERISTIC, in_signature="a{sv}", out_signature="ay")
    def ReadValue(self, options):
        return dbus.Array(self.value, signature="y")

    @dbus.service.method(GATT_CHARACTERISTIC, in_signature="aya{sv}")
    def WriteValue(self, value, options):
        if self.on_write is None:
            raise NotPermitted("not writable")
        self.on_write(bytes(value))

    @dbus.service.method(GATT_CHARACTERISTIC)
    def StartNotify(self):
        log("StartNotify", self.uuid)
        self.notifying = True

    @dbus.service.method(GATT_CHARACTERISTIC)
    def StopNotify(self):
        log("StopNotify", self.uuid)
        self.notifying = False

    def notify(self, data):
        self.value = data
        if self.notifying:
            self.PropertiesChanged(GATT_CHARACTERISTIC, {"Value": dbus.Array(data, signature="y")}, [])
        return self.notifying


class Application(dbus.service.Object):
    def __init__(self, bus, services):
        super().__init__(bus, APP_PATH)
        self.services = services

    @dbus.service.method(OBJECT_MANAGER, out_signature="a{oa{sa{sv}}}")
    def GetManagedObjects(self):
        objects = {}
        for service in self.services:
            objects[service.path] = service.properties()
            for characteristic in service.characteristics:
                objects[characteristic.path] = characteristic.properties()
        return objects


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--adapter", default="hci1")
    parser.add_argument("--name", default="KelpE2E")
    parser.add_argument("--ssid", default="KelpAP")
    parser.add_argument("--transcript", required=True)
    parser.add_argument("--pulse-ms", type=int, default=100)
    args = parser.parse_args()

    transcript = open(args.transcript, "a", buffering=1)

    def record(entry):
        entry["t"] = round(time.monotonic(), 3)
        transcript.write(json.dumps(entry, sort_keys=True) + "\n")
        log("transcript", json.dumps(entry, sort_keys=True))

    dbus.mainloop.glib.DBusGMainLoop(set_as_default=True)
    bus = dbus.SystemBus()
    apath = adapter_path(args.adapter)
    adapter_props = dbus.Interface(bus.get_object(BLUEZ, apath), PROPERTIES)
    adapter_props.Set(ADAPTER, "Powered", dbus.Boolean(True))
    # an advertisement without the LE General Discoverable flag makes a scanning bluetoothd skip a device
    # it does not know yet; the adapter being discoverable is what sets the flag
    adapter_props.Set(ADAPTER, "DiscoverableTimeout", dbus.UInt32(0))
    # a central that connects reads the GAP device name, and BlueZ then shows that as the device's Name:
    # a camera gives the same name there as in its advertisement
    adapter_props.Set(ADAPTER, "Alias", dbus.String(args.name))
    adapter_props.Set(ADAPTER, "Discoverable", dbus.Boolean(True))

    service = Service(bus, APP_PATH + "/service0", SERVICE_UUID)
    answers = Characteristic(bus, service, 1, ANSWER_UUID, ["read", "notify"])

    def notify(data):
        delivered = answers.notify(data)
        record({"event": "notify", "text": data.decode("latin-1"), "delivered": delivered})

    camera = Camera(notify, record)
    Characteristic(bus, service, 0, COMMAND_UUID, ["write"], on_write=camera.command)
    service.characteristics.sort(key=lambda c: c.path)
    application = Application(bus, [service])

    # device type 7 (little-endian), schema 3, battery 2, IP 192.168.1.20, then the SSID
    payload = bytes([0x07, 0x00, 0x03, 0x02, 0xC0, 0xA8, 0x01, 0x14]) + args.ssid.encode("ascii")
    advertisement = Advertisement(bus, args.name, payload)
    gatt_manager = dbus.Interface(bus.get_object(BLUEZ, apath), GATT_MANAGER)
    adv_manager = dbus.Interface(bus.get_object(BLUEZ, apath), ADVERTISING_MANAGER)

    loop = GLib.MainLoop()
    state = {"gatt": False, "adv": False, "ready": False, "pulses": 0}

    def ready_check():
        if state["gatt"] and state["adv"] and not state["ready"]:
            state["ready"] = True
            address = adapter_props.Get(ADAPTER, "Address")
            log("READY camera on %s address %s payload %s" % (args.adapter, address, payload.hex()))

    def failed(what):
        def handler(error):
            log("ERROR", what, error)
            loop.quit()
        return handler

    def gatt_ok():
        state["gatt"] = True
        ready_check()

    def adv_ok():
        state["adv"] = True
        ready_check()

    # asynchronous on purpose: bluetoothd calls back into this process before it replies
    gatt_manager.RegisterApplication(APP_PATH, {}, reply_handler=gatt_ok,
                                     error_handler=failed("RegisterApplication"))
    adv_manager.RegisterAdvertisement(ADV_PATH, {}, reply_handler=adv_ok,
                                      error_handler=failed("RegisterAdvertisement"))

    def central_connected():
        for path, interfaces in managed_objects(bus).items():
            props = interfaces.get(DEVICE)
            if props and props["Adapter"] == apath and bool(props.get("Connected", False)):
                return True
        return False

    pulser = AdvertisingPulser(int(args.adapter[3:])) if args.pulse_ms > 0 else None

    def pulse():
        if not state["ready"]:
            return True
        state["pulses"] += 1
        # the bus is asked only now and then: a pulse must stay cheap
        if state["pulses"] % 10 == 0 and central_connected():
            log("central connected after %d pulses; advertising no longer pulsed" % state["pulses"])
            return False
        pulser.pulse()
        return True

    if pulser is not None:
        GLib.timeout_add(args.pulse_ms, pulse)

    for signum in (signal.SIGTERM, signal.SIGINT):
        GLib.unix_signal_add(GLib.PRIORITY_DEFAULT, signum, lambda: loop.quit() or False)
    loop.run()
    log("stopping after %d advertising pulses" % state["pulses"])
    transcript.close()
    del application, advertisement
    sys.exit(0 if state["ready"] else 1)


if __name__ == "__main__":
    main()
