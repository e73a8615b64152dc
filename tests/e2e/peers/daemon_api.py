#!/usr/bin/python3
"""daemon_api.py COMMAND [options]: the unit's daemon driven through its D-Bus API on the user bus, as
the unit's other programs drive it. Each command prints what it saw as a RESULT line and exits 1 when
that is not what the daemon must do.

  objects                      the object manager lists the one object with the three interfaces
  scan --camera ADDR [--unit ADDR --unit-name NAME]
                               Scan (again, up to --passes times) lists the camera as a remote
                               camera with its payload, and the other unit (a schema-4 payload:
                               listed, its payload fields not taken); DiscoveredRemoteCamera comes
                               once for each; ScannedDevices and RemoteCameras agree with the Scan
  configure --camera ADDR      ConfigKelpBle answers at once; ConfiguredKelpBle (true, the camera)
                               follows; ReadKelpBle then brings NewKelpBleData for it
  discovered --camera ADDR     waits, without asking, for DiscoveredRemoteCamera of the camera (the
                               auto-scan's finding); RemoteCameras then holds it
  listed --camera ADDR --ssid TEXT
                               waits until RemoteCameras holds the camera with that payload text
"""

import argparse
import json
import sys
import time

import dbus
import dbus.mainloop.glib
from gi.repository import GLib

from btpeer import log, plain, result

NAME = "com.quorbel.common.Bluetooth1"
PATH = "/com/quorbel/common/Bluetooth1"
RADIO, ADVERT, SCANNER = NAME + ".Radio", NAME + ".Advert", NAME + ".Scanner"


class Signals:
    """Every signal of the daemon's object, in arrival order, with the time it came."""

    def __init__(self, bus):
        self.seen = []
        bus.add_signal_receiver(self._on, path=PATH, member_keyword="member", interface_keyword="interface")

    def _on(self, *args, member=None, interface=None):
        self.seen.append((time.monotonic(), interface, member, [plain(a) for a in args]))

    def of(self, member):
        return [s[3] for s in self.seen if s[2] == member]

    def wait(self, predicate, timeout):
        context = GLib.MainContext.default()
        deadline = time.monotonic() + timeout
        while not predicate() and time.monotonic() < deadline:
            context.iteration(False) or time.sleep(0.02)
        return predicate()

    def pump(self, seconds):
        self.wait(lambda: False, seconds)


def call(bus, interface, method, *args, timeout=60):
    return bus.get_object(NAME, PATH).get_dbus_method(method, interface)(*args, timeout=timeout)


def get(bus, interface, prop):
    return call(bus, "org.freedesktop.DBus.Properties", "Get", interface, prop)


def find(devices, address):
    return [d for d in devices if d.get("mac", "").upper() == address.upper()]


def objects(bus, _):
    managed = call(bus, "org.freedesktop.DBus.ObjectManager", "GetManagedObjects")
    listing = {str(path): sorted(str(i) for i in interfaces if i.startswith(NAME)) for path, interfaces in managed.items()}
    ok = listing == {PATH: sorted([RADIO, ADVERT, SCANNER])}
    result(ok, objects=listing)
    return ok


def scan(bus, args):
    signals = Signals(bus)
    started = time.monotonic()
    # One Scan is one pass over what BlueZ has seen so far, as the auto-scan's are: on the emulated
    # air the camera shows after some passes, so a client asks again, as the unit's programs do.
    for attempt in range(1, args.passes + 1):
        text = str(call(bus, SCANNER, "Scan", timeout=90))
        devices = json.loads(text)
        log("Scan %d: %s" % (attempt, [d.get("mac") for d in devices]))
        if find(devices, args.camera) and (not args.unit or find(devices, args.unit)):
            break
        signals.pump(args.gap)
    took = time.monotonic() - started
    camera = find(devices, args.camera)
    # a signal sent during the scan is queued behind its reply; give it a moment
    signals.pump(2.0)
    discovered = [json.loads(s[0]) for s in signals.of("DiscoveredRemoteCamera")]
    announced = [d for d in discovered if d.get("mac", "").upper() == args.camera.upper()]
    scanned = json.loads(str(get(bus, SCANNER, "ScannedDevices")))
    cameras = json.loads(str(get(bus, SCANNER, "RemoteCameras")))
    problems = []
    if len(camera) != 1 or "remote-cam-info" not in camera[0]:
        problems.append("Scan did not list the camera as a remote camera once")
    elif camera[0]["remote-cam-info"].get("ssid") != args.ssid:
        problems.append("the camera's payload text is %r, not %r" % (camera[0]["remote-cam-info"].get("ssid"), args.ssid))
    if len(announced) != 1:
        problems.append("DiscoveredRemoteCamera came %d times for the camera" % len(announced))
    unit = find(devices, args.unit) if args.unit else []
    if args.unit:
        problems += other_unit_problems(unit, args.unit_name, discovered, find(cameras, args.unit))
    if sorted(d["mac"] for d in scanned) != sorted(d["mac"] for d in devices):
        problems.append("ScannedDevices lists other devices than the Scan")
    if find(cameras, args.camera) != camera:
        problems.append("RemoteCameras does not hold the camera as the Scan gave it")
    if any("remote-cam-info" not in c for c in cameras):
        problems.append("RemoteCameras holds a device that is no camera")
    result(not problems, problems=problems, seconds=round(took, 2), scans=attempt,
           devices=[d.get("mac") for d in devices],
           camera=camera[0] if camera else None, discovered=len(announced),
           unit=unit[0] if unit else None)
    return not problems


def other_unit_problems(unit, name, discovered, in_cameras):
    """Another unit's schema-4 payload with a device type of 1..9: listed like a remote camera, but
    only a schema-3 payload has its fields taken, so its device type, address and text stay empty."""
    if len(unit) != 1:
        return ["Scan did not list the other unit once"]
    problems = []
    unit = unit[0]
    info = unit.get("remote-cam-info", {})
    if unit.get("type") != 1 or unit.get("name") != name:
        problems.append("the other unit is listed as type %r named %r" % (unit.get("type"), unit.get("name")))
    if info.get("deviceType", {}).get("number") != 0 or info.get("ssid") != "" or \
            info.get("ipAddress", {}).get("number") != 0:
        problems.append("the other unit's schema-4 payload was taken: %r" % info)
    if in_cameras != [unit]:
        problems.append("RemoteCameras does not hold the other unit as the Scan gave it")
    if len([d for d in discovered if d.get("mac", "").upper() == unit["mac"].upper()]) != 1:
        problems.append("DiscoveredRemoteCamera did not come once for the other unit")
    return problems


def configure(bus, args):
    signals = Signals(bus)
    started = time.monotonic()
    call(bus, RADIO, "ConfigKelpBle", args.camera)
    answered = time.monotonic() - started
    problems = []
    if answered > 2.0:
        problems.append("ConfigKelpBle took %.1f s to answer" % answered)
    if not signals.wait(lambda: signals.of("ConfiguredKelpBle"), args.timeout):
        problems.append("no ConfiguredKelpBle within %d s" % args.timeout)
        result(False, problems=problems, answered=round(answered, 2))
        return False
    (success, document), = signals.of("ConfiguredKelpBle")[0]
    configured = time.monotonic() - started
    camera = json.loads(document) if document else {}
    if not success or camera.get("mac", "").upper() != args.camera.upper():
        problems.append("ConfiguredKelpBle said %s for %s" % (success, camera.get("mac")))
    log("configured", success, document)
    call(bus, SCANNER, "ReadKelpBle")
    fresh = lambda: [d for d in (json.loads(s[0]) for s in signals.of("NewKelpBleData"))
                     if d.get("mac", "").upper() == args.camera.upper()]
    if not signals.wait(fresh, args.timeout):
        problems.append("no NewKelpBleData for the camera within %d s of ReadKelpBle" % args.timeout)
    result(not problems, problems=problems, answered=round(answered, 2), configured=round(configured, 2),
           camera=camera, new_data=fresh()[-1] if fresh() else None)
    return not problems


def discovered(bus, args):
    signals = Signals(bus)
    started = time.monotonic()
    print("WATCHING", flush=True)
    mine = lambda: [d for d in (json.loads(s[0]) for s in signals.of("DiscoveredRemoteCamera"))
                    if d.get("mac", "").upper() == args.camera.upper()]
    found = signals.wait(mine, args.timeout)
    took = time.monotonic() - started
    cameras = json.loads(str(get(bus, SCANNER, "RemoteCameras"))) if found else []
    ok = found and len(mine()) == 1 and len(find(cameras, args.camera)) == 1
    result(ok, seconds=round(took, 2), announced=len(mine()), listed=len(find(cameras, args.camera)))
    return ok


def listed(bus, args):
    started = time.monotonic()
    seen = None
    while time.monotonic() - started < args.timeout:
        camera = find(json.loads(str(get(bus, SCANNER, "RemoteCameras"))), args.camera)
        seen = camera[0]["remote-cam-info"].get("ssid") if camera else None
        if seen == args.ssid:
            break
        time.sleep(0.5)
    result(seen == args.ssid, seconds=round(time.monotonic() - started, 2), ssid=seen)
    return seen == args.ssid


def main():
    parser = argparse.ArgumentParser()
    sub = parser.add_subparsers(dest="command", required=True)
    sub.add_parser("objects")
    p = sub.add_parser("scan")
    p.add_argument("--camera", required=True)
    p.add_argument("--ssid", default="KelpAP")
    p.add_argument("--unit")
    p.add_argument("--unit-name")
    p.add_argument("--passes", type=int, default=25)
    p.add_argument("--gap", type=float, default=1.0)
    p = sub.add_parser("configure")
    p.add_argument("--camera", required=True)
    p.add_argument("--timeout", type=int, default=90)
    p = sub.add_parser("discovered")
    p.add_argument("--camera", required=True)
    p.add_argument("--timeout", type=int, default=60)
    p = sub.add_parser("listed")
    p.add_argument("--camera", required=True)
    p.add_argument("--ssid", required=True)
    p.add_argument("--timeout", type=int, default=60)
    args = parser.parse_args()
    dbus.mainloop.glib.DBusGMainLoop(set_as_default=True)
    bus = dbus.SessionBus()
    commands = {"objects": objects, "scan": scan, "configure": configure, "discovered": discovered, "listed": listed}
    sys.exit(0 if commands[args.command](bus, args) else 1)


if __name__ == "__main__":
    main()
