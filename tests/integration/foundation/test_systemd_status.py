#!/usr/bin/python3
'''What systemd sees of the daemon binary: a STATUS= line at each change an operator cares about (waiting
for hci0, serving or not, advertising schema or off, auto-scan period or off, devices known, the last
scan's outcome), sent only when it changes; and WATCHDOG=1 from the loop when the unit asks for pings.'''
import json
import os
import sys
import time
import unittest

import dbus

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, '..', '..', 'harness'))
sys.path.insert(0, os.path.join(HERE, '..', '..', '..', 'sim'))
from daemon_process import DaemonProcess  # noqa: E402
from testenv import TestEnv  # noqa: E402
from unit import Unit  # noqa: E402
import populate_unit  # noqa: E402

NAME = 'com.quorbel.common.Bluetooth1'
PATH = '/com/quorbel/common/Bluetooth1'
ADVERT, SCANNER = NAME + '.Advert', NAME + '.Scanner'
PROPS = 'org.freedesktop.DBus.Properties'
SETTINGS = ('com.quorbel.common.Settings1', '/com/quorbel/common/Settings1/bluetooth')
UNIT_3, CAMERA = 'C0:FF:EE:00:00:03', 'C0:FF:EE:00:00:07'


def statuses(daemon):
    '''Every STATUS= line received so far, oldest first.'''
    daemon.notify.wait_for('', timeout=0)
    return [line for _, msg in daemon.notify.messages for line in msg.split('\n') if line.startswith('STATUS=')]


def pings(daemon):
    daemon.notify.wait_for('', timeout=0)
    return [when for when, msg in daemon.notify.messages if 'WATCHDOG=1' in msg.split('\n')]


class StatusUnit(Unit):
    def add_devices(self, *addresses):
        for address in addresses:
            props = next(p for a, p in populate_unit.DEVICES if a == address)
            self.system.get_object('org.bluez', '/').AddLEDevice(
                'hci0', address, dbus.Dictionary(props, signature='sv'), dbus_interface='org.bluez.Mock')

    def set(self, iface, name, value):
        self.user.get_object(NAME, PATH, introspect=False).Set(iface, name, value, dbus_interface=PROPS,
                                                               signature='ssv')

    def scan(self):
        return self.user.get_object(NAME, PATH, introspect=False).Scan(dbus_interface=SCANNER, timeout=60)


class SystemdStatus(unittest.TestCase):
    def expect(self, daemon, line, timeout=10):
        self.assertIsNotNone(daemon.notify.wait_for(line, timeout), statuses(daemon))

    def test_each_change_an_operator_cares_about_gives_one_status_line(self):
        with StatusUnit(self) as unit:
            unit.add_devices(UNIT_3, CAMERA)
            daemon = unit.start()
            self.expect(daemon, 'STATUS=Serving; advertising schema 4; auto-scan every 30 s; 0 devices known; '
                                'no scan yet')
            unit.set(ADVERT, 'AdvertSchema', dbus.Int32(3))
            self.expect(daemon, 'STATUS=Serving; advertising schema 3; auto-scan every 30 s; 0 devices known; '
                                'no scan yet')
            unit.set(ADVERT, 'Advertising', dbus.Boolean(False))
            self.expect(daemon, 'STATUS=Serving; advertising off; auto-scan every 30 s; 0 devices known; '
                                'no scan yet')
            unit.set(SCANNER, 'AutoScanRateSecs', dbus.Int32(20))
            self.expect(daemon, 'STATUS=Serving; advertising off; auto-scan every 20 s; 0 devices known; '
                                'no scan yet')
            # through the settings daemon as well as through the API
            unit.set_prop(*SETTINGS, 'autoScanEnabled', dbus.Boolean(False))
            self.expect(daemon, 'STATUS=Serving; advertising off; auto-scan off; 0 devices known; no scan yet')
            self.assertEqual(len(json.loads(unit.scan())), 2)
            self.expect(daemon, 'STATUS=Serving; advertising off; auto-scan off; 2 devices known; last scan ok')
            # BlueZ gone: the next pass fails
            unit.env.stop_peer('bluez')
            unit.scan()
            deadline = time.monotonic() + 10
            while not statuses(daemon)[-1].endswith('; last scan failed') and time.monotonic() < deadline:
                daemon.notify.wait_for('', timeout=0.1)
            self.assertRegex(statuses(daemon)[-1],
                             r'^STATUS=Serving; advertising off; auto-scan off; \d devices? known; last scan failed$')
            # one line per change, none repeated
            seen = statuses(daemon)
            self.assertEqual(len(seen), len(set(seen)), seen)
            self.assertEqual(len(seen), 7, seen)

    def test_an_unchanged_state_is_not_sent_again_each_period(self):
        with StatusUnit(self, settings={'autoScanRateSecs': 1}) as unit:
            unit.add_devices(UNIT_3)
            daemon = unit.start()
            line = 'STATUS=Serving; advertising schema 4; auto-scan every 1 s; 1 device known; last scan ok'
            self.expect(daemon, line)
            before = len(statuses(daemon))
            log = unit.env.hci_calls()
            # three more periods, each stopping and restarting advertising
            deadline = time.monotonic() + 10
            while len(unit.env.hci_calls()) < len(log) + 3 * 5 and time.monotonic() < deadline:
                time.sleep(0.1)
            self.assertGreaterEqual(len(unit.env.hci_calls()), len(log) + 3 * 5)
            self.assertEqual(statuses(daemon)[before:], [])
            self.assertEqual(statuses(daemon)[-1], line)

    def test_waiting_for_hci0_shows_until_the_service_comes_up(self):
        params = {'systemd': {'on_restart_mkdir': {'bluetooth.service': '@SYSFS_BT@/hci0'}}}
        with TestEnv(sandbox=True, hci0=False, params=params) as env:
            daemon = DaemonProcess(env)
            try:
                ready = daemon.notify.wait_for('READY=1', timeout=20)
                self.assertIsNotNone(ready, daemon.texts())
                waiting = daemon.notify.wait_for('STATUS=Waiting for hci0', timeout=0)
                self.assertIsNotNone(waiting)
                self.assertLess(waiting, ready)
                serving = daemon.notify.wait_for(
                    'STATUS=Serving; advertising schema 4; auto-scan every 30 s; 0 devices known; no scan yet', 5)
                self.assertIsNotNone(serving, statuses(daemon))
                self.assertEqual(statuses(daemon)[:2], ['STATUS=Waiting for hci0', 'STATUS=Serving; advertising '
                                                        'schema 4; auto-scan every 30 s; 0 devices known; no scan yet'])
            finally:
                self.assertEqual(daemon.stop(), 0)

    def test_a_name_held_by_another_client_shows_as_waiting(self):
        with StatusUnit(self) as unit:
            holder = dbus.bus.BusConnection(unit.env.environ['DBUS_SESSION_BUS_ADDRESS'])
            try:
                self.assertEqual(holder.request_name(NAME, dbus.bus.NAME_FLAG_DO_NOT_QUEUE),
                                 dbus.bus.REQUEST_NAME_REPLY_PRIMARY_OWNER)
                daemon = unit.start()
                self.expect(daemon, 'STATUS=Waiting for the bus or its name; advertising schema 4; '
                                    'auto-scan every 30 s; 0 devices known; no scan yet')
            finally:
                holder.close()

    def test_watchdog_pings_come_from_the_loop_only_when_asked_for(self):
        interval_s = 2.0
        with StatusUnit(self) as unit:
            daemon = unit.start(extra_env={'WATCHDOG_USEC': str(int(interval_s * 1e6))})
            ready = daemon.notify.wait_for('READY=1', timeout=0)
            daemon.notify.wait_for('never sent', timeout=3 * interval_s)
            after = [w for w in pings(daemon) if w > ready]
            self.assertGreaterEqual(len(after), 3, daemon.notify.messages)
            # systemd restarts the service when a whole interval passes without one
            gaps = [b - a for a, b in zip([ready] + after, after)]
            self.assertLess(max(gaps), interval_s, gaps)
        with StatusUnit(self) as unit:
            daemon = unit.start()
            daemon.notify.wait_for('never sent', timeout=3 * interval_s)
            self.assertEqual(pings(daemon), [])


if __name__ == '__main__':
    unittest.main()
