#!/usr/bin/python3
"""hci_trace.py --trace btmon.txt --controller hci0 --expect-advertising on|off

Reads the text trace of btmon and checks what the controller made of the LE advertising commands
sent to it (parameters 0x0006, data 0x0008, scan response 0x0009, enable 0x000a): every one must
have been answered with status Success, and the last enable must have switched advertising on (or
off). Prints the commands with their statuses, and btmon's own remarks on them (for example that a
command's parameter is shorter than the Core Specification's fixed size)."""

import argparse
import re
import sys

from btpeer import log, result

ADVERTISING_OPCODES = {"0x0006": "parameters", "0x0008": "data", "0x0009": "scan-response",
                       "0x000a": "enable"}
COMMAND = re.compile(r"^< HCI Command:.*\(0x08\|(0x[0-9a-f]{4})\) plen (\d+).*\[(hci\d+)\]")
COMPLETE = re.compile(r"^> HCI Event: Command Com.*\[(hci\d+)\]")
COMPLETE_OPCODE = re.compile(r"\(0x08\|(0x[0-9a-f]{4})\)")
STATUS = re.compile(r"Status: (.*) \((0x[0-9a-f]{2})\)")


def parse(lines, controller):
    commands = []
    pending = {}
    current = None
    for line in lines:
        if not line.startswith(" "):
            current = None
            match = COMMAND.match(line)
            if match and match.group(3) == controller and match.group(1) in ADVERTISING_OPCODES:
                current = {"what": ADVERTISING_OPCODES[match.group(1)], "opcode": match.group(1),
                           "plen": int(match.group(2)), "notes": [], "status": None}
                commands.append(current)
                pending.setdefault(match.group(1), []).append(current)
                continue
            match = COMPLETE.match(line)
            if match and match.group(1) == controller:
                current = {"complete": True}
            continue
        if current is None:
            continue
        text = line.strip()
        if current.get("complete"):
            match = COMPLETE_OPCODE.search(text)
            if match and "opcode" not in current:
                current["opcode"] = match.group(1)
                continue
            match = STATUS.search(text)
            if match and current.get("opcode") in pending and pending[current["opcode"]]:
                command = pending[current["opcode"]].pop(0)
                command["status"] = "%s (%s)" % (match.group(1), match.group(2))
                current = None
            continue
        if text.startswith("Advertising: "):
            current["enable"] = text.split(": ", 1)[1]
        elif text.startswith("Type: "):
            current["type"] = text.split(": ", 1)[1]
        elif text == "invalid packet size":
            current["notes"].append("btmon: invalid packet size")
    return commands


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--trace", required=True)
    parser.add_argument("--controller", default="hci0")
    parser.add_argument("--expect-advertising", choices=["on", "off"], required=True)
    args = parser.parse_args()
    with open(args.trace, errors="replace") as trace:
        commands = parse(trace.read().splitlines(), args.controller)
    for command in commands:
        log(command)
    problems = []
    if not commands:
        problems.append("no advertising command reached %s" % args.controller)
    for command in commands:
        if command["status"] != "Success (0x00)":
            problems.append("%s %s answered %s" % (command["what"], command["opcode"], command["status"]))
    enables = [c for c in commands if c["what"] == "enable"]
    wanted = "Enabled (0x01)" if args.expect_advertising == "on" else "Disabled (0x00)"
    if not enables or enables[-1].get("enable") != wanted:
        problems.append("last advertise enable is %s, wanted %s"
                        % (enables[-1].get("enable") if enables else "missing", wanted))
    remarks = sorted({"%s: %s" % (c["what"], n) for c in commands for n in c["notes"]})
    result(not problems, problems=problems, commands=len(commands), remarks=remarks)
    sys.exit(0 if not problems else 1)


if __name__ == "__main__":
    main()
