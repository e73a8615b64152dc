#!/usr/bin/python3
'''The daemon binary in the simulated unit doing its main job on its own: settings read and applied,
the scan response on air through hcitool, auto-scan with radio reboots, and the sibling daemons' values
reaching the air.'''
import os
import time
import unittest

import dbus

from harness.peers import NETWORK, POWER, SETTINGS
from harness.unit import Unit, ip_value, scan_responses
from harness.wait import wait_until

INFO, ERR = 6, 3
UNITCTL = os.path.join(os.path.dirname(os.path.abspath(__file__)), '..', '..', '..', 'sim', 'unitctl')
REBOOT = 'Error when scanning for devices... rebooting radio'
PARAMETERS = 'hcitool -i hci0 cmd 08 0006 00 08 00 08 03 00 00 00 00 00 00 00 00 07 00'


class Controller(unittest.TestCase):
    def test_start_logs_the_configuration_and_advertises_the_configured_schema(self):
        # the simulated settings: schema 4, rate 30, discoverable and pairable on
        with Unit(self) as unit:
            daemon = unit.start()
            block = ['Configuration from settings:', 'Scan Response Version:  4', 'Scan Rate Seconds:      30',
                     'Power Enabled:          true', 'Pairable Enabled:       true',
                     'Auto Scan Enabled:      true', 'System() Debug Enabled: false']
            texts = daemon.texts()
            self.assertIn(block[0], texts)
            first = texts.index(block[0])
            self.assertEqual(texts[first:first + len(block)], block)
            self.assertTrue(wait_until(lambda: len(scan_responses(unit.env)) >= 1, 5), unit.env.hci_calls())
            calls = unit.env.hci_calls()
            self.assertEqual(calls[0], PARAMETERS)
            self.assertEqual(calls[1], 'hciconfig hci0 leadv')
            self.assertTrue(calls[2].startswith('hcitool -i hci0 cmd 08 0008 '), calls)
            self.assertTrue(calls[3].startswith('hcitool -i hci0 cmd 08 0009 '), calls)
            self.assertEqual(scan_responses(unit.env)[0][2], 4)
            self.assertEqual(unit.powered_sets(), [])  # already powered: no switch needed

    def test_a_new_schema_reapplies_everything_and_goes_on_air(self):
        with Unit(self) as unit:
            daemon = unit.start()
            self.assertTrue(wait_until(lambda: len(scan_responses(unit.env)) >= 1, 5))
            unit.set_prop(*SETTINGS, 'advertSchema', dbus.UInt32(3))
            self.assertIsNotNone(daemon.wait_line('name: advertSchema', timeout=5), daemon.texts())
            self.assertTrue(wait_until(lambda: len(scan_responses(unit.env)) >= 2, 5), unit.env.hci_calls())
            self.assertEqual(scan_responses(unit.env)[-1][2], 3)
            # stopped before the rebuild, started after it
            calls = unit.env.hci_calls()
            self.assertIn('hciconfig hci0 noleadv', calls)
            self.assertLess(calls.index('hciconfig hci0 noleadv'), len(calls) - 4)
            unit.set_prop(*SETTINGS, 'advertSchema', dbus.UInt32(4))
            self.assertTrue(wait_until(lambda: len(scan_responses(unit.env)) >= 3, 5))
            self.assertEqual(scan_responses(unit.env)[-1][2], 4)

    def test_advertising_disabled_takes_the_unit_off_the_air(self):
        with Unit(self) as unit:
            daemon = unit.start()
            self.assertTrue(wait_until(lambda: len(scan_responses(unit.env)) >= 1, 5))
            unit.set_prop(*SETTINGS, 'advertisingEnabled', False)
            self.assertIsNotNone(daemon.wait_line('name: advertisingEnabled', timeout=5))
            self.assertTrue(wait_until(lambda: unit.env.hci_calls()[-1:] == ['hciconfig hci0 noleadv'], 5),
                            unit.env.hci_calls())
            count = len(unit.env.hci_calls())
            time.sleep(0.8)
            self.assertEqual(len(unit.env.hci_calls()), count, unit.env.hci_calls())

    def test_battery_and_address_changes_reach_the_air_after_the_next_scan(self):
        with Unit(self, settings={'autoScanRateSecs': 1}) as unit:
            daemon = unit.start()
            self.assertTrue(wait_until(lambda: len(scan_responses(unit.env)) >= 1, 5))
            before = scan_responses(unit.env)[-1]
            # as units in the field decode it: the first group's digit count times 769
            self.assertEqual(ip_value(before), 3 * 769)  # 192.168.1.20
            unit.set_prop(*NETWORK, 'IPAddress', '10.0.0.7')
            unit.set_prop(*POWER, 'BatteryChargePercentages', dbus.Array([12, 10], signature='i'))
            self.assertIsNotNone(daemon.wait_line('IPAddress: 10.0.0.7', timeout=5), daemon.texts())
            sent = len(scan_responses(unit.env))
            self.assertTrue(wait_until(lambda: len(scan_responses(unit.env)) > sent, 5), unit.env.hci_calls())
            after = scan_responses(unit.env)[-1]
            self.assertEqual(ip_value(after), 2 * 769)  # 10.0.0.7
            self.assertNotEqual(after[3], before[3])  # battery status
            self.assertGreaterEqual(len(unit.adapter_calls('StartDiscovery')), 1)

    def test_a_refused_discovery_gives_three_attempts_three_reboots_and_the_timer_goes_on(self):
        with Unit(self, settings={'autoScanRateSecs': 1}) as unit:
            unit.bluez.set_method_behaviour('StartDiscovery', {'error': 'org.bluez.Error.NotReady',
                                                               'count': dbus.Int32(-1)})
            daemon = unit.start()
            # a whole failed period takes three 2 s reboots; then the timer fires again
            self.assertIsNotNone(daemon.wait_line(REBOOT, timeout=15, count=4), daemon.texts())
            first_period = [line for line in daemon.lines if line.text == REBOOT][:3]
            self.assertTrue(all(line.priority == ERR for line in first_period))
            self.assertGreaterEqual(first_period[2].when - first_period[0].when, 3.9)
            self.assertGreaterEqual(len(unit.adapter_calls('StartDiscovery')), 4)
            sets = unit.powered_sets()
            self.assertEqual(sets[:6], [False, True] * 3)

    def test_powered_false_at_start_switches_nothing_on(self):
        with Unit(self, settings={'powered': False, 'autoScanRateSecs': 1}) as unit:
            daemon = unit.start()
            self.assertIn('Power Enabled:          false', daemon.texts())
            time.sleep(2.5)
            self.assertEqual(unit.powered_sets(), [])
            self.assertNotIn('hciconfig hci0 leadv', unit.env.hci_calls())
            self.assertEqual(unit.adapter_calls('StartDiscovery'), [])

    def test_a_hostile_payload_nearby_never_stops_the_timer_or_silences_the_unit(self):
        # two octets under the company identifier make the payload decoder throw out of a scan pass
        with Unit(self, settings={'autoScanRateSecs': 1}) as unit:
            unit.bluez.add_device(
                'BA:D0:00:00:00:02',
                {'Name': dbus.String('hostile'),
                 'ManufacturerData': dbus.Dictionary({dbus.UInt16(0x05F3): dbus.Array([dbus.Byte(7), dbus.Byte(0)],
                                                                                       signature='y')},
                                                     signature='qv')})
            daemon = unit.start()
            # the pass is abandoned with discovery left running, so periods show in the log, not as calls
            lost = 'AutoScanTask: exception stopped at the C boundary: '
            self.assertIsNotNone(daemon.wait_line_prefix(lost, timeout=10), daemon.texts())
            leadv = len([c for c in unit.env.hci_calls() if c == 'hciconfig hci0 leadv'])
            self.assertTrue(wait_until(lambda: len([t for t in daemon.texts() if t.startswith(lost)]) >= 3, 10),
                            daemon.texts())
            abandoned = [line for line in daemon.lines if line.text.startswith(lost)]
            self.assertTrue(all(line.priority == ERR for line in abandoned))
            # back on air after every period
            self.assertTrue(wait_until(
                lambda: len([c for c in unit.env.hci_calls() if c == 'hciconfig hci0 leadv']) >= leadv + 2, 5),
                unit.env.hci_calls())

    def test_without_bluez_the_controller_stays_down_and_the_daemon_still_reports_ready(self):
        with Unit(self, without=['bluez']) as unit:
            daemon = unit.start()
            line = daemon.wait_line('Bluetooth Controller failed to initialise, disabling dbus interface', timeout=5)
            self.assertIsNotNone(line, daemon.texts())
            self.assertEqual(line.priority, ERR)
            self.assertIn('Could not create manager for TinyB Radio', daemon.texts())
            # nothing was switched or sent
            self.assertEqual(unit.env.hci_calls(), [])
            self.assertIsNone(daemon.proc.poll())

    def test_unitctl_answers_a_wrongly_typed_value_with_one_line(self):
        with Unit(self) as unit:
            for value, shown in (('abc', "'abc'"), ('[1, 2]', '[1, 2]')):
                result = unit.env.run(['/usr/bin/python3', UNITCTL, 'setting', 'advertSchema', value],
                                      capture_output=True, text=True)
                self.assertEqual(result.returncode, 1)
                self.assertEqual(result.stderr.splitlines(),
                                 [f'unitctl: advertSchema takes D-Bus type "u", not {shown}'])
            result = unit.env.run(['/usr/bin/python3', UNITCTL, 'setting', 'advertSchema', '3'],
                                  capture_output=True, text=True)
            self.assertEqual(result.returncode, 0, result.stderr)


if __name__ == '__main__':
    unittest.main()
