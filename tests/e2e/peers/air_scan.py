#!/usr/bin/python3
"""air_scan.py --adapter hci1 --address ADDR --expect present|absent [options]

A BlueZ scanner on the peer adapter, watching what one device puts on the air.

present: passes as soon as BlueZ lists a device with ADDR whose Name is --name (if given) and whose
         ManufacturerData under --company equals --data (hex, if given); fails after --timeout.
absent:  fails as soon as a device with ADDR shows up; passes after --timeout seconds without it.

The emulated controller reports advertising only when scanning or advertising gets switched on, and
the kernel drops reports that arrive before its discovery is under way, so discovery is restarted
every --restart seconds to give it fresh chances. A device BlueZ remembers from an earlier scan is
removed first, so that stale data can neither match nor count as presence; with --forget the device
is removed again at the end, so that later scans on this adapter start clean too."""

import argparse
import json
import sys
import time

import dbus

from btpeer import (ADAPTER, BLUEZ, DEVICE, adapter_path, die, log, managed_objects, plain, result)


def parse_args():
    parser = argparse.ArgumentParser()
    parser.add_argument("--adapter", default="hci1")
    parser.add_argument("--address", required=True)
    parser.add_argument("--expect", choices=["present", "absent"], required=True)
    parser.add_argument("--name")
    parser.add_argument("--company", type=lambda s: int(s, 0), default=0x05F3)
    parser.add_argument("--data", help="expected manufacturer data under --company, hex")
    parser.add_argument("--timeout", type=float, default=20.0)
    parser.add_argument("--restart", type=float, default=2.0)
    parser.add_argument("--forget", action="store_true")
    return parser.parse_args()


def main():
    args = parse_args()
    address = args.address.upper()
    bus = dbus.SystemBus()
    apath = adapter_path(args.adapter)
    adapter = dbus.Interface(bus.get_object(BLUEZ, apath), ADAPTER)

    def devices_with_address():
        found = []
        for path, interfaces in managed_objects(bus).items():
            props = interfaces.get(DEVICE)
            if props and props["Adapter"] == apath and str(props["Address"]).upper() == address:
                found.append((path, props))
        return found

    def forget():
        for path, _ in devices_with_address():
            try:
                adapter.RemoveDevice(path)
                log("removed", path)
            except dbus.exceptions.DBusException as error:
                log("RemoveDevice", path, error)

    forget()
    adapter.SetDiscoveryFilter({"Transport": "le", "DuplicateData": dbus.Boolean(True)})
    adapter.StartDiscovery()
    t0 = time.monotonic()
    log("discovery on %s, expecting %s to be %s" % (args.adapter, address, args.expect))

    def matches(props):
        if args.name is not None and str(props.get("Name", "")) != args.name:
            return False
        if args.data is not None:
            data = props.get("ManufacturerData", {}).get(dbus.UInt16(args.company))
            if data is None or bytes(data).hex() != args.data.lower():
                return False
        return True

    last_seen = None
    hit = None
    next_restart = t0 + args.restart
    deadline = t0 + args.timeout
    restarts = 0
    while time.monotonic() < deadline:
        for _, props in devices_with_address():
            if last_seen is None or plain(props) != last_seen:
                last_seen = plain(props)
                log("seen after %.2f s:" % (time.monotonic() - t0), json.dumps(last_seen, sort_keys=True))
            if args.expect == "absent" or matches(props):
                hit = props
                break
        if hit is not None:
            break
        now = time.monotonic()
        if args.restart > 0 and now >= next_restart:
            try:
                adapter.StopDiscovery()
                adapter.StartDiscovery()
                restarts += 1
            except dbus.exceptions.DBusException as error:
                log("restarting discovery:", error)
            next_restart = now + args.restart
        time.sleep(0.1)
    elapsed = round(time.monotonic() - t0, 2)
    try:
        adapter.StopDiscovery()
    except dbus.exceptions.DBusException as error:
        log("StopDiscovery:", error)
    if args.forget:
        forget()

    fields = {"address": address, "expect": args.expect, "seconds": elapsed, "restarts": restarts,
              "device": plain(hit) if hit is not None else last_seen}
    if args.expect == "present":
        if hit is None:
            log("FAILED: no matching advertising from %s within %.1f s" % (address, args.timeout))
        result(hit is not None, **fields)
        sys.exit(0 if hit is not None else 1)
    if hit is not None:
        log("FAILED: %s is still on the air" % address)
    result(hit is None, **fields)
    sys.exit(0 if hit is None else 1)


if __name__ == "__main__":
    try:
        main()
    except dbus.exceptions.DBusException as error:
        die("D-Bus error: %s" % error)
