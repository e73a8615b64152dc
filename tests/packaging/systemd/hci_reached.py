#!/usr/bin/python3
"""hci_reached.py BTMON_TRACE: exit 0 when the btmon text trace shows a scan-response command sent to
hci0 and answered with status Success; that is, the HCI tools the daemon runs reached the controller
from inside the service's sandbox."""
import os
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "e2e", "peers"))
from hci_trace import parse  # noqa: E402

with open(sys.argv[1], errors="replace") as trace:
    commands = parse(trace.read().splitlines(), "hci0")
answers = [c["status"] for c in commands if c["what"] == "scan-response"]
if "Success (0x00)" in answers:
    sys.exit(0)
print("scan-response commands on hci0 and their answers: %s" % (answers or "none"))
sys.exit(1)
