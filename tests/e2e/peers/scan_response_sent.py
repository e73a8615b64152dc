#!/usr/bin/python3
"""scan_response_sent.py --trace btmon.txt [--controller hci0] [--skip N]

The scan-response data that the unit's HCI tools last sent to the controller, read from btmon's text
trace: the manufacturer data under company 0x05F3 (hex, what a BlueZ scanner lists under that key),
its schema version (third octet), and how many scan-response commands the trace holds. --skip N
ignores the first N commands, to wait for a new one. --wait SECONDS reads the trace again until there
is one, or one with --until-version V, or one whose octet I differs from that of --from HEX
(--until-octet-differs I). Besides the RESULT line, a FIELDS line gives version|count|data for the
shell. Exit 1 when there is none (beyond N) in time."""

import argparse
import re
import sys
import time

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


def last_sent(args):
    """(count, data of the last command beyond --skip or None, why not)"""
    with open(args.trace, errors="replace") as trace:
        commands = sent(trace.read().splitlines(), args.controller)
    if len(commands) <= args.skip:
        return len(commands), None, "no new scan-response command"
    data = manufacturer_data(commands[-1])
    if data is None:
        return len(commands), None, "no data under company 0x%04X" % COMPANY_ID
    return len(commands), data, None


def wanted(args, data):
    if args.until_version is not None and (len(data) <= 2 or data[2] != args.until_version):
        return False
    if args.until_octet_differs is not None:
        before = bytes.fromhex(args.from_data or "")
        index = args.until_octet_differs
        if len(data) <= index or (len(before) > index and data[index] == before[index]):
            return False
    return True


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--trace", required=True)
    parser.add_argument("--controller", default="hci0")
    parser.add_argument("--skip", type=int, default=0)
    parser.add_argument("--wait", type=float, default=0)
    parser.add_argument("--until-version", type=int)
    parser.add_argument("--until-octet-differs", type=int)
    parser.add_argument("--from", dest="from_data")
    args = parser.parse_args()
    deadline = time.monotonic() + args.wait
    while True:
        count, data, problem = last_sent(args)
        if data is not None and not wanted(args, data):
            problem = "not the scan response waited for"
        if problem is None or time.monotonic() >= deadline:
            break
        time.sleep(0.3)
    if problem is not None:
        result(False, count=count, problem=problem, data=data.hex() if data is not None else None)
        print("FIELDS |%d|" % count, flush=True)
        sys.exit(1)
    version = data[2] if len(data) > 2 else None
    result(True, count=count, data=data.hex(), version=version)
    print("FIELDS %s|%d|%s" % ("" if version is None else version, count, data.hex()), flush=True)


if __name__ == "__main__":
    main()
