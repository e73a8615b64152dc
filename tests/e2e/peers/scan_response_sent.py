#!/usr/bin/python3
"""scan_response_sent.py --trace btmon.txt [--controller hci0] [--skip N]

The scan-response data that the unit's HCI tools last sent to the controller, read from btmon's text
trace: the manufacturer data under company 0x05F3 (hex, what a BlueZ scanner lists under that key),
its schema version (third octet), and how many scan-response commands the trace holds. --skip N
ignores the first N commands, to wait for a new one. Exit 1 when there is none (beyond N)."""

import argparse
import re
import sys

from btpeer import COMPANY_ID, result

COMMAND = re.compile(r"^< HCI Command:.*\(0x08\|0x0009\) plen \d+.*\[(hci\d+)\]")
HEX_LINE = re.compile(r"^ {8}((?:[0-9a-f]{2} )+)")


def sent(lines, controller):
    """Octets of every scan-response command sent to the controller, oldest first."""
    found, current = [], None
    for line in lines:
        match = COMMAND.match(line)
        if match:
            current = [] if match.group(1) == controller else None
            if current is not None:
                found.append(current)
            continue
        if not line.startswith(" "):
            current = None
            continue
        if current is not None:
            match = HEX_LINE.match(line)
            if match:
                current.extend(int(octet, 16) for octet in match.group(1).split())
    return found


def manufacturer_data(octets):
    """The data under our company in the AD structures after the significant-length octet."""
    ads, i = octets[1:1 + octets[0]] if octets else [], 0
    while i < len(ads) and ads[i]:
        length, kind = ads[i], ads[i + 1] if i + 1 < len(ads) else None
        body = ads[i + 2:i + 1 + length]
        if kind == 0xFF and len(body) >= 2 and body[0] | body[1] << 8 == COMPANY_ID:
            return bytes(body[2:])
        i += 1 + length
    return None


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--trace", required=True)
    parser.add_argument("--controller", default="hci0")
    parser.add_argument("--skip", type=int, default=0)
    args = parser.parse_args()
    with open(args.trace, errors="replace") as trace:
        commands = sent(trace.read().splitlines(), args.controller)
    if len(commands) <= args.skip:
        result(False, count=len(commands), problem="no new scan-response command")
        sys.exit(1)
    data = manufacturer_data(commands[-1])
    if data is None:
        result(False, count=len(commands), problem="no data under company 0x%04X" % COMPANY_ID)
        sys.exit(1)
    result(True, count=len(commands), data=data.hex(), version=data[2] if len(data) > 2 else None)


if __name__ == "__main__":
    main()
