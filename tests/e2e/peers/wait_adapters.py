#!/usr/bin/python3
"""wait_adapters.py ADAPTER...

Waits until bluetoothd exposes every named adapter on the system bus, powers each on, waits until
BlueZ reports it powered, and prints a RESULT line with each adapter's address. Proves that
bluetoothd answers on the bus and drives the controllers."""

import sys
import time

import dbus

from btpeer import ADAPTER, BLUEZ, PROPERTIES, adapter_path, die, log, managed_objects, result, wait_until

TIMEOUT_S = 40


def main():
    names = sys.argv[1:] or ["hci0", "hci1"]
    state = {"bus": None}

    def all_present():
        try:
            if state["bus"] is None:
                state["bus"] = dbus.SystemBus()
            objects = managed_objects(state["bus"])
        except dbus.exceptions.DBusException:
            return None
        return all(ADAPTER in objects.get(adapter_path(n), {}) for n in names) and objects

    t0 = time.monotonic()
    if not wait_until(all_present, TIMEOUT_S):
        die("adapters %s not on the bus after %d s" % (names, TIMEOUT_S))
    log("adapters on the bus after %.2f s" % (time.monotonic() - t0))
    bus = state["bus"]

    def power_on():
        objects = managed_objects(bus)
        for name in names:
            if bool(objects[adapter_path(name)][ADAPTER]["Powered"]):
                continue
            properties = dbus.Interface(bus.get_object(BLUEZ, adapter_path(name)), PROPERTIES)
            try:
                properties.Set(ADAPTER, "Powered", dbus.Boolean(True))
            except dbus.exceptions.DBusException as error:
                # org.bluez.Error.Busy: bluetoothd is powering it on by itself (AutoEnable)
                log("powering %s:" % name, error.get_dbus_name())

    def all_powered():
        objects = managed_objects(bus)
        return all(bool(objects[adapter_path(n)][ADAPTER]["Powered"]) for n in names) and objects

    objects = None
    deadline = time.monotonic() + TIMEOUT_S
    while objects is None and time.monotonic() < deadline:
        power_on()
        objects = wait_until(all_powered, 2)
    if not objects:
        die("adapters did not power on")
    addresses = {n: str(objects[adapter_path(n)][ADAPTER]["Address"]) for n in names}
    log("powered after %.2f s:" % (time.monotonic() - t0), addresses)
    result(True, addresses=addresses)


if __name__ == "__main__":
    main()
