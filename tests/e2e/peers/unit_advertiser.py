#!/usr/bin/python3
"""unit_advertiser.py --adapter hci2 --serial TEXT [--device-type 9] [--pulse-ms 100]

Plays another unit on a peer adapter. It advertises the way the unit's daemon does, with LE commands
sent straight to the controller (what hcitool sends), beside bluetoothd: connectable undirected
advertising every 100 ms, the flags and the serial number as complete local name in the advertising
data, and in the scan response the manufacturer data under 0x05F3 with a schema-4 payload (device
type, schema 4, battery, IP, the serial number as text). Advertising is pulsed as the camera's is
(AdvertisingPulser). Prints "READY unit ..." once advertising, and switches it off on SIGTERM."""

import argparse
import signal
import struct
import sys
import time

from btpeer import COMPANY_ID, AdvertisingPulser, log

SET_ADVERTISING_PARAMETERS = 0x2006
SET_ADVERTISING_DATA = 0x2008
SET_SCAN_RESPONSE_DATA = 0x2009


def ad_structure(ad_type, data):
    return bytes([len(data) + 1, ad_type]) + bytes(data)


def significant(structures):
    """The 32 parameter octets of the data commands: the significant length, then 31 octets."""
    data = b"".join(structures)
    if len(data) > 31:
        sys.exit("unit_advertiser: %d octets do not fit in 31" % len(data))
    return bytes([len(data)]) + data + bytes(31 - len(data))


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--adapter", default="hci2")
    parser.add_argument("--serial", required=True)
    parser.add_argument("--device-type", type=int, default=9)
    parser.add_argument("--battery", type=int, default=2)
    parser.add_argument("--pulse-ms", type=int, default=100)
    args = parser.parse_args()

    # device type (little-endian), schema 4, battery, IP 10.0.30.10, then the serial number
    payload = struct.pack("<HBB", args.device_type, 4, args.battery) + bytes([10, 0, 30, 10]) + \
        args.serial.encode("ascii")
    # LE General Discoverable, BR/EDR not supported: a scanning bluetoothd skips an unknown device
    # advertising without the discoverable flag
    advertising = significant([ad_structure(0x01, [0x06]), ad_structure(0x09, args.serial.encode("ascii"))])
    response = significant([ad_structure(0xFF, struct.pack("<H", COMPANY_ID) + payload)])

    hci = AdvertisingPulser(int(args.adapter[3:]))
    hci.enable(False)
    # 100 ms, ADV_IND, public address, no peer, all three channels, no filter
    hci.command(SET_ADVERTISING_PARAMETERS, struct.pack("<HHBBB6sBB", 0xA0, 0xA0, 0x00, 0x00, 0x00, bytes(6), 0x07, 0x00))
    hci.command(SET_ADVERTISING_DATA, advertising)
    hci.command(SET_SCAN_RESPONSE_DATA, response)
    hci.enable(True)
    log("READY unit on %s serial %s payload %s" % (args.adapter, args.serial, payload.hex()))

    running = [True]
    for signum in (signal.SIGTERM, signal.SIGINT):
        signal.signal(signum, lambda *_: running.__setitem__(0, False))
    pulses = 0
    while running[0]:
        time.sleep(args.pulse_ms / 1000.0)
        hci.pulse()
        pulses += 1
    hci.enable(False)
    log("stopping after %d advertising pulses" % pulses)


if __name__ == "__main__":
    main()
