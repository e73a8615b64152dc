#!/usr/bin/python3
'''The daemon binary in the hermetic unit: the HCI watchdog, start-up timing, readiness and exit status.'''
import time
import unittest

from harness.bus import Bus
from harness.daemon_process import DaemonProcess
from harness.peers import restarts as restarts_on
from harness.testenv import TestEnv

INFO, ERR = 6, 3
OKAY = 'HCI0 okay, no need to restart services!'
MISSING = 'HCI0 does not exist, relaunching BT related services...'
WAITING = 'Waiting for HCI0 interface...'
BROUGHT_UP = 'HCI0 has been brought up!'
STARTING = 'Initialising bluetooth daemon...'


def restarts(env):
    with Bus(env.environ['DBUS_SYSTEM_BUS_ADDRESS']) as bus:
        return restarts_on(bus)


class DaemonStart(unittest.TestCase):
    def test_hci0_present_checks_once_restarts_nothing_and_reports_ready(self):
        with TestEnv(sandbox=True) as env:
            daemon = DaemonProcess(env)
            try:
                self.assertIsNotNone(daemon.notify.wait_for('READY=1', timeout=15), daemon.texts())
                okay = daemon.wait_line(OKAY, timeout=1)
                start = daemon.wait_line(STARTING, timeout=1)
                self.assertIsNotNone(okay)
                self.assertEqual(okay.priority, INFO)
                self.assertIsNotNone(start)
                self.assertEqual(start.priority, INFO)
                # no restart: the start callback runs on the loop's first iteration
                self.assertLess(start.when - okay.when, 1.0)
                self.assertEqual(daemon.count(OKAY), 1)
                self.assertEqual(daemon.count(MISSING), 0)
                self.assertEqual(restarts(env), [])
            finally:
                status = daemon.stop()
            self.assertEqual(status, 0, daemon.texts())

    def test_hci0_appearing_during_the_first_wait_restarts_both_units_once_and_delays_start(self):
        params = {'systemd': {'on_restart_mkdir': {'bluetooth.service': '@SYSFS_BT@/hci0'}}}
        with TestEnv(sandbox=True, hci0=False, params=params) as env:
            daemon = DaemonProcess(env)
            try:
                self.assertIsNotNone(daemon.notify.wait_for('READY=1', timeout=20), daemon.texts())
                up = daemon.wait_line(BROUGHT_UP, timeout=1)
                start = daemon.wait_line(STARTING, timeout=1)
                self.assertIsNotNone(up, daemon.texts())
                self.assertEqual(up.priority, INFO)
                self.assertEqual(restarts(env), ['variscite-bt.service', 'bluetooth.service'])
                self.assertEqual(daemon.count(MISSING), 1)
                self.assertEqual(daemon.count(OKAY), 0)
                self.assertIn("[Utils] Got unit name '/org/freedesktop/systemd1/unit/variscite_2dbt_2eservice' "
                              "for the service 'variscite-bt.service'", daemon.texts())
                self.assertIn("[Utils] Got unit name '/org/freedesktop/systemd1/unit/bluetooth_2eservice' "
                              "for the service 'bluetooth.service'", daemon.texts())
                self.assertIsNotNone(daemon.wait_line_prefix(
                    "[Utils] Started '/org/freedesktop/systemd1/unit/bluetooth_2eservice' unit with job id:", 1))
                # the freshly restarted stack gets 2 s of grace (sd-event may add up to 250 ms of slack)
                delay = start.when - up.when
                self.assertGreaterEqual(delay, 1.9, daemon.texts())
                self.assertLess(delay, 3.5)
            finally:
                status = daemon.stop()
            self.assertEqual(status, 0)

    def test_hci0_never_appearing_makes_five_passes_and_still_starts(self):
        with TestEnv(sandbox=True, hci0=False) as env:
            daemon = DaemonProcess(env)
            try:
                self.assertIsNotNone(daemon.notify.wait_for('READY=1', timeout=60), daemon.texts())
                self.assertEqual(daemon.count(MISSING), 5)
                self.assertEqual(daemon.count(WAITING), 25)
                self.assertEqual(daemon.count(BROUGHT_UP), 0)
                self.assertEqual(restarts(env), ['variscite-bt.service', 'bluetooth.service'] * 5)
                last_wait = daemon.wait_line(WAITING, timeout=0, count=25)
                start = daemon.wait_line(STARTING, timeout=1)
                self.assertGreaterEqual(start.when - last_wait.when, 2.9)  # 1 s sleep + 2 s grace
            finally:
                status = daemon.stop()
            self.assertEqual(status, 0)

    def test_stopped_while_waiting_for_hci0_it_ends_at_once_with_status_zero(self):
        with TestEnv(sandbox=True, hci0=False) as env:
            daemon = DaemonProcess(env)
            waiting = daemon.wait_line(WAITING, timeout=10)
            stopped = time.monotonic()
            status = daemon.stop()
            self.assertIsNotNone(waiting, daemon.texts())
            self.assertEqual(status, 0)
            self.assertLess(time.monotonic() - stopped, 1.5)
            # nothing more was restarted and nothing brought up (readiness comes only after bring-up)
            self.assertEqual(restarts(env), ['variscite-bt.service', 'bluetooth.service'])
            self.assertEqual(daemon.count(STARTING), 0)

    def test_systemd_absent_is_logged_and_the_watchdog_goes_on(self):
        with TestEnv(sandbox=True, hci0=False, without=['systemd']) as env:
            daemon = DaemonProcess(env)
            try:
                self.assertIsNotNone(daemon.wait_line(WAITING, timeout=15), daemon.texts())
                env.set_hci0(True)
                self.assertIsNotNone(daemon.notify.wait_for('READY=1', timeout=20), daemon.texts())
                texts = daemon.texts()
                for unit in ('variscite-bt.service', 'bluetooth.service'):
                    failures = [t for t in texts
                                if t.startswith(f"[Utils] Failed to load unit name of '{unit}' service. ")]
                    self.assertEqual(len(failures), 1, texts)
                    self.assertRegex(failures[0], r'\(r = -\d+\)$')
                # no reply to read either, and no unit path to restart
                self.assertEqual(daemon.count('LoadServiceUnit: Failed to read response'), 2, texts)
                self.assertEqual(daemon.count('RestartServiceUnit: Failed to read response'), 0, texts)
                self.assertFalse([t for t in texts if t.startswith('[Utils] Failed to start ')], texts)
                self.assertEqual(daemon.count(BROUGHT_UP), 1)
            finally:
                status = daemon.stop()
            self.assertEqual(status, 0)

    def test_started_by_systemd_it_logs_to_syslog_only(self):
        for variable in ('JOURNAL_STREAM', 'INVOCATION_ID'):
            with self.subTest(variable=variable), TestEnv(sandbox=True) as env:
                daemon = DaemonProcess(env, extra_env={variable: '8:1234' if variable == 'JOURNAL_STREAM' else 'ab12'})
                try:
                    self.assertIsNotNone(daemon.notify.wait_for('READY=1', timeout=15))
                finally:
                    status = daemon.stop()
                self.assertEqual(status, 0)
                # syslog has the lines; the terminal echo is only for a person running it by hand
                self.assertEqual(daemon.texts(), [])


if __name__ == '__main__':
    unittest.main()
