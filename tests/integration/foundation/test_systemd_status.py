#!/usr/bin/python3
'''What systemd sees of the daemon binary: a STATUS= line at each change an operator cares about (waiting
for hci0, serving or not, advertising schema or off, auto-scan period or off, devices known, the last
scan's outcome), sent only when it changes; and WATCHDOG=1 from the loop when the unit asks for pings.'''
import json
import unittest

import dbus

from harness.bus import ADVERT, SCANNER
from harness.daemon_process import DaemonProcess
from harness.peers import SETTINGS
from harness.testenv import TestEnv
from harness.unit import CAMERA, UNIT_3, Unit
from harness.wait import wait_until


def statuses(daemon):
    '''Every STATUS= line received so far, oldest first.'''
    return [line for _, msg in daemon.notify.messages for line in msg.split('\n') if line.startswith('STATUS=')]


def pings(daemon):
    return [when for when, msg in daemon.notify.messages if 'WATCHDOG=1' in msg.split('\n')]


class SystemdStatus(unittest.TestCase):
    def expect(self, daemon, line, timeout=10):
        self.assertIsNotNone(daemon.notify.wait_for(line, timeout), statuses(daemon))

    def test_each_change_an_operator_cares_about_gives_one_status_line(self):
        with Unit(self) as unit:
            unit.add_nearby(UNIT_3, CAMERA)
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
            self.assertEqual(len(json.loads(unit.call(SCANNER, 'Scan', timeout=60))), 2)
            self.expect(daemon, 'STATUS=Serving; advertising off; auto-scan off; 2 devices known; last scan ok')
            # BlueZ gone: the next pass fails
            unit.env.stop_peer('bluez')
            unit.call(SCANNER, 'Scan', timeout=60)
            wait_until(lambda: statuses(daemon)[-1].endswith('; last scan failed'), 10, step=0.1)
            self.assertRegex(statuses(daemon)[-1],
                             r'^STATUS=Serving; advertising off; auto-scan off; \d devices? known; last scan failed$')
            # one line per change, none repeated
            seen = statuses(daemon)
            self.assertEqual(len(seen), len(set(seen)), seen)
            self.assertEqual(len(seen), 7, seen)

    def test_an_unchanged_state_is_not_sent_again_each_period(self):
        with Unit(self, settings={'autoScanRateSecs': 1}) as unit:
            unit.add_nearby(UNIT_3)
            daemon = unit.start()
            line = 'STATUS=Serving; advertising schema 4; auto-scan every 1 s; 1 device known; last scan ok'
            self.expect(daemon, line)
            before = len(statuses(daemon))
            log = unit.env.hci_calls()
            # three more periods, each stopping and restarting advertising
            wait_until(lambda: len(unit.env.hci_calls()) >= len(log) + 3 * 5, 10, step=0.1)
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
        with Unit(self) as unit:
            with unit.name_holder():
                daemon = unit.start()
                self.expect(daemon, 'STATUS=Waiting for the bus or its name; advertising schema 4; '
                                    'auto-scan every 30 s; 0 devices known; no scan yet')

    def test_watchdog_pings_come_from_the_loop_only_when_asked_for(self):
        interval_s = 2.0
        with Unit(self) as unit:
            daemon = unit.start(extra_env={'WATCHDOG_USEC': str(int(interval_s * 1e6))})
            ready = daemon.notify.wait_for('READY=1', timeout=0)
            daemon.notify.wait_for('never sent', timeout=3 * interval_s)
            after = [w for w in pings(daemon) if w > ready]
            self.assertGreaterEqual(len(after), 3, daemon.notify.messages)
            # systemd restarts the service when a whole interval passes without one
            gaps = [b - a for a, b in zip([ready] + after, after)]
            self.assertLess(max(gaps), interval_s, gaps)
        with Unit(self) as unit:
            daemon = unit.start()
            daemon.notify.wait_for('never sent', timeout=3 * interval_s)
            self.assertEqual(pings(daemon), [])


if __name__ == '__main__':
    unittest.main()
