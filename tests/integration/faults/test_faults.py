#!/usr/bin/python3
'''The daemon binary in the simulated unit through the faults a unit in the field goes through: BlueZ or
its adapter going away and coming back, sibling daemons starting late or restarting, a camera dropping
the link during its configuration, a hostile payload nearby for a long time, and settings of the wrong
D-Bus type. Every time the daemon must stay up, keep answering on the bus, and pick up again.

QB_FAULTS_HOSTILE_SECS sets how long the hostile payload stays nearby (30 s by default).
'''
import json
import os
import threading
import time
import unittest

import dbus

from harness.bus import ADVERT, NAME, PATH, RADIO, SCANNER, Bus, Error
from harness.peers import NETWORK, POWER, SETTINGS, SETTINGS_IFACE
from harness.unit import CAMERA, PHONE, UNIT_3, Service, documents, ip_value, scan_responses
from harness.wait import wait_until

ERR = 3
ABANDONED = 'AutoScanTask: exception stopped at the C boundary: '
HOSTILE = 'BA:D0:00:00:00:02'
DROPPING_CAMERA = 'C0:FF:EE:00:00:0D'
HOSTILE_SECS = float(os.environ.get('QB_FAULTS_HOSTILE_SECS', '30'))


class FaultyUnit(Service):
    '''The unit with its daemon, and the controls of its simulated BlueZ.'''

    def discoveries(self):
        return self.bluez.discoveries()

    def leadv(self):
        return self.env.hci_calls().count('hciconfig hci0 leadv')

    def settings_set_raw(self, name, value):
        '''A setting stored as given, whatever its declared type, and announced.'''
        self.user.set(*SETTINGS, SETTINGS_IFACE, name, value)


def last_switch(unit):
    '''The last advertising switch sent: whether the unit is on air.'''
    return [c for c in unit.env.hci_calls() if c in ('hciconfig hci0 leadv', 'hciconfig hci0 noleadv')][-1]


def scan_in_background(unit):
    '''Scan() from a connection of its own; the result (or the error) lands in the returned dict.'''
    result = {}

    def run():
        with Bus(unit.env.environ['DBUS_SESSION_BUS_ADDRESS']) as bus:
            try:
                result['reply'] = bus.call(NAME, PATH, SCANNER, 'Scan', timeout=30)
            except Error as e:
                result['error'] = e.get_dbus_name()
    thread = threading.Thread(target=run, daemon=True)
    thread.start()
    return thread, result


def found_by_scan(unit, address, timeout):
    '''Scans until `address` is in the answer; the tinyb client reloads BlueZ's objects asynchronously.'''
    return wait_until(lambda: address in documents(unit.scan()), timeout, step=0.3)


class BluezGoesAway(unittest.TestCase):
    def test_bluez_restarted_in_the_middle_of_a_scan_pass(self):
        with FaultyUnit(self, devices=[UNIT_3, PHONE], settings={'autoScanRateSecs': 60}) as unit:
            daemon = unit.start()
            self.assertEqual(set(documents(unit.scan())), {UNIT_3, PHONE})
            # BlueZ takes its time to start discovering: the pass is caught inside that call
            unit.bluez.set_method_behaviour('StartDiscovery', {'delay_ms': dbus.UInt32(1500)})
            before = unit.discoveries()
            thread, result = scan_in_background(unit)
            self.assertTrue(wait_until(lambda: unit.discoveries() > before, 5))
            unit.env.stop_peer('bluez')
            thread.join(15)
            self.assertFalse(thread.is_alive(), 'the Scan caught by the restart was never answered')
            self.assertTrue(result, result)
            self.assertTrue(unit.alive(), daemon.texts())
            self.assertTrue(unit.still_serving())
            # without BlueZ a Scan is still answered
            self.assertIsInstance(unit.scan(), str)
            unit.env.start_peer('bluez')
            unit.add_nearby(CAMERA)
            self.assertTrue(found_by_scan(unit, CAMERA, 10), daemon.texts()[-30:])
            self.assertGreaterEqual(unit.discoveries(), 1)
            self.assertTrue(unit.alive())

    def test_bluez_restarted_while_idle_and_auto_scan_finds_devices_again(self):
        with FaultyUnit(self, devices=[UNIT_3], settings={'autoScanRateSecs': 1}) as unit:
            daemon = unit.start()
            self.assertTrue(wait_until(lambda: unit.discoveries() >= 1, 5))
            unit.env.stop_peer('bluez')
            # at least one period runs without BlueZ
            time.sleep(2.5)
            self.assertTrue(unit.alive(), daemon.texts())
            self.assertTrue(unit.still_serving())
            unit.env.start_peer('bluez')
            unit.add_nearby(CAMERA)
            # auto-scan alone, no Scan call: the new bluetoothd sees discoveries and the camera is found
            self.assertIsNotNone(daemon.wait_line('Device Mac:  C0:FF:EE:00:00:07', timeout=25), daemon.texts()[-40:])
            self.assertTrue(wait_until(lambda: unit.discoveries() >= 1, 5))
            self.assertTrue(wait_until(lambda: unit.received('DiscoveredRemoteCamera'), 2))
            self.assertIn(CAMERA, documents(unit.get(SCANNER, 'ScannedDevices')))
            self.assertTrue(unit.still_serving())

    def test_the_adapter_removed_and_added_again(self):
        with FaultyUnit(self, devices=[UNIT_3], settings={'autoScanRateSecs': 1}) as unit:
            daemon = unit.start()
            self.assertTrue(wait_until(lambda: unit.discoveries() >= 1, 5))
            unit.bluez.remove_adapter()
            time.sleep(2.5)
            self.assertTrue(unit.alive(), daemon.texts())
            self.assertTrue(unit.still_serving())
            self.assertIsInstance(unit.scan(), str)
            unit.bluez.add_adapter('unit-sim')
            unit.add_nearby(CAMERA)
            # the new adapter object keeps its own call log: its discoveries are the daemon's new ones
            self.assertIsNotNone(daemon.wait_line('Device Mac:  C0:FF:EE:00:00:07', timeout=25), daemon.texts()[-40:])
            self.assertTrue(wait_until(lambda: unit.discoveries() >= 1, 5))
            self.assertTrue(found_by_scan(unit, CAMERA, 5))
            self.assertTrue(unit.alive())


class SiblingsComeAndGo(unittest.TestCase):
    def test_a_power_daemon_starting_late_reaches_the_air(self):
        with FaultyUnit(self, without=['power'], settings={'autoScanRateSecs': 1}) as unit:
            daemon = unit.start()
            self.assertIn('BluetoothController::BluetoothController(sd_event*): Failed to GetAllPowerProperties '
                          'from PylonDaemon', daemon.texts())
            self.assertTrue(wait_until(lambda: len(scan_responses(unit.env)) >= 1, 5))
            before = scan_responses(unit.env)[-1][3]
            unit.env.start_peer('power')
            # the battery running low: without a power daemon the unit shows a full one
            for name, value in (('ActivePowerSource', dbus.Int32(1)),
                                ('BatteryTypes', dbus.Array([1, 1], signature='u')),
                                ('BatteryVoltages', dbus.Array([16900, 16800], signature='i')),
                                ('BatteryChargePercentages', dbus.Array([12, 10], signature='i'))):
                unit.set_prop(*POWER, name, value)
            changed = 'void BluetoothController::PowerPropertiesChanged(sdbus_utils::TypedPropertyMap&)'
            self.assertIsNotNone(daemon.wait_line(changed, timeout=5, count=4), daemon.texts()[-30:])
            sent = len(scan_responses(unit.env))
            self.assertTrue(wait_until(lambda: len(scan_responses(unit.env)) > sent, 5), unit.env.hci_calls()[-5:])
            self.assertNotEqual(scan_responses(unit.env)[-1][3], before)

    def test_restarted_siblings_are_still_heard(self):
        with FaultyUnit(self, settings={'autoScanRateSecs': 1}) as unit:
            daemon = unit.start()
            self.assertTrue(wait_until(lambda: len(scan_responses(unit.env)) >= 1, 5))
            before = scan_responses(unit.env)[-1]
            for peer in ('power', 'network', 'settings'):
                unit.env.stop_peer(peer)
                unit.env.start_peer(peer)
            self.assertTrue(unit.alive(), daemon.texts())
            unit.set_prop(*POWER, 'BatteryChargePercentages', dbus.Array([12, 10], signature='i'))
            unit.set_prop(*NETWORK, 'IPAddress', '10.0.0.7')
            self.assertIsNotNone(daemon.wait_line('IPAddress: 10.0.0.7', timeout=5), daemon.texts()[-30:])
            sent = len(scan_responses(unit.env))
            self.assertTrue(wait_until(lambda: len(scan_responses(unit.env)) > sent, 5))
            after = scan_responses(unit.env)[-1]
            self.assertEqual(ip_value(after), 2 * 769)  # 10.0.0.7, as units in the field decode it
            self.assertNotEqual(ip_value(before), ip_value(after))
            self.assertNotEqual(after[3], before[3])
            # and the restarted settings daemon: a new schema goes on air at once
            unit.set_prop(*SETTINGS, 'advertSchema', dbus.UInt32(3))
            self.assertTrue(wait_until(lambda: scan_responses(unit.env)[-1][2] == 3, 5), unit.env.hci_calls()[-5:])


class CameraDropsTheLink(unittest.TestCase):
    def test_a_drop_during_configuration_is_reported_and_releases_the_scan_lock(self):
        camera = {'Name': dbus.String('KelpCam-000D'), 'RSSI': dbus.Int16(-58),
                  'ManufacturerData': dbus.Dictionary({dbus.UInt16(0x05F3): dbus.Array(
                      [7, 0, 3, 3, 0, 0, 0, 0] + list(b'K000D'), signature='y')}, signature='qv'),
                  'X-Camera': dbus.Boolean(True),
                  # off, its access point up shortly after switching on: a configuration it would pass
                  'X-CameraState': dbus.Dictionary({'power': 'U', 'wifi': 'G', 'band': '5.0'}, signature='sv'),
                  # but the link goes on the power command, after the camera was read
                  'X-Camera-Profile': dbus.Dictionary({'wifi_settle': 'R', 'wifi_unavailable_ms': dbus.UInt32(200),
                                                       'wifi_boot_ms': dbus.UInt32(200), 'drop_link_on': 'WP',
                                                       'drop_link_after_ms': dbus.UInt32(0)}, signature='sv')}
        with FaultyUnit(self, settings={'autoScanRateSecs': 2}) as unit:
            unit.bluez.add_device(DROPPING_CAMERA, camera)
            daemon = unit.start()
            self.assertIn(DROPPING_CAMERA, documents(unit.scan()))
            self.assertIsNone(unit.call(RADIO, 'ConfigKelpBle', DROPPING_CAMERA))
            self.assertTrue(wait_until(lambda: unit.received('ConfiguredKelpBle'), 30), daemon.texts()[-30:])
            (outcome,) = unit.received('ConfiguredKelpBle')[0]
            success, text = outcome
            self.assertFalse(success)
            self.assertEqual(json.loads(text)['mac'], DROPPING_CAMERA)
            self.assertEqual(unit.camera_writes(DROPPING_CAMERA), ['RV\r', 'RF\r', 'RP\r', 'WPZ\r'])
            self.assertIn('Failed to configure KelpCam-000D over BLE:', daemon.texts())
            self.assertFalse(unit.bluez.device_prop(DROPPING_CAMERA, 'Connected'))
            # the lock is free: a Scan runs a pass of its own
            busy = 'Scan: a remote camera is being read, answering with the devices known'
            before = unit.discoveries()
            unit.scan()
            self.assertGreater(unit.discoveries(), before)
            self.assertNotIn(busy, daemon.texts())
            # and auto-scan goes on by itself, a period after the Scan re-armed it
            after_scan = unit.discoveries()
            self.assertTrue(wait_until(lambda: unit.discoveries() > after_scan, 5), daemon.texts()[-20:])
            self.assertTrue(unit.still_serving())


class HostilePayloadNearby(unittest.TestCase):
    def test_scanning_and_advertising_go_on_for_as_long_as_it_is_there(self):
        hostile = {'Name': dbus.String('hostile'),
                   'ManufacturerData': dbus.Dictionary({dbus.UInt16(0x05F3): dbus.Array([7, 0], signature='y')},
                                                       signature='qv')}
        with FaultyUnit(self, devices=[PHONE], settings={'autoScanRateSecs': 1}) as unit:
            unit.bluez.add_device(HOSTILE, hostile)
            daemon = unit.start()
            self.assertIsNotNone(daemon.wait_line_prefix(ABANDONED, timeout=10), daemon.texts())
            end = time.monotonic() + HOSTILE_SECS
            window = 5.0
            rounds = 0
            while time.monotonic() < end or rounds == 0:
                abandoned = sum(1 for t in daemon.texts() if t.startswith(ABANDONED))
                leadv = unit.leadv()
                # every window sees periods abandoned, the unit back on air and the bus answered
                self.assertTrue(wait_until(lambda: sum(1 for t in daemon.texts() if t.startswith(ABANDONED)) > abandoned
                                     and unit.leadv() > leadv, window),
                                f'round {rounds}: {daemon.texts()[-20:]}')
                self.assertTrue(unit.alive())
                self.assertTrue(unit.still_serving(), f'round {rounds}')
                rounds += 1
            self.assertTrue(all(ln.priority == ERR for ln in daemon.lines if ln.text.startswith(ABANDONED)))
            # the unit is still on air as the pass left it, and a Scan is still answered
            self.assertIn(PHONE, documents(unit.get(SCANNER, 'ScannedDevices')))
            self.assertIsInstance(unit.scan(), str)
            self.assertTrue(unit.get(ADVERT, 'Advertising'))


class SettingsOfTheWrongType(unittest.TestCase):
    def test_wrong_types_at_start_fall_back_to_the_safe_defaults(self):
        with FaultyUnit(self) as unit:
            unit.settings_set_raw('autoScanRateSecs', dbus.String('1'))
            unit.settings_set_raw('powered', dbus.Int32(0))
            daemon = unit.start()
            texts = daemon.texts()
            for line in ('int32_t Settingsd::SettingsDaemonDbusHandler::GetSetting(const std::string&, const '
                         'std::string&, T&): ERROR sdbus_utils::GetProperty autoScanRateSecs failed property '
                         'autoScanRateSecs has type s, expected u',
                         "GetBluetoothSetting: Cannot get setting 'autoScanRateSecs', setting to safe default: 10",
                         'int32_t Settingsd::SettingsDaemonDbusHandler::GetSetting(const std::string&, const '
                         'std::string&, T&): ERROR sdbus_utils::GetProperty powered failed property powered has '
                         'type i, expected b',
                         "GetBluetoothSetting: Cannot get setting 'powered', setting to safe default: 1"):
                self.assertIn(line, texts)
            self.assertIn('Scan Rate Seconds:      10', texts)
            self.assertIn('Power Enabled:          true', texts)
            fallbacks = [ln for ln in daemon.lines if ln.text.startswith('GetBluetoothSetting: ')]
            self.assertEqual(len(fallbacks), 2, [ln.text for ln in fallbacks])
            self.assertTrue(all(ln.priority == ERR for ln in fallbacks))
            # powered as the safe default says: on air; the rate of 10 s means no discovery yet
            self.assertTrue(wait_until(lambda: len(scan_responses(unit.env)) >= 1, 5))
            time.sleep(2)
            self.assertEqual(unit.discoveries(), 0)
            # a correct value is applied: periods of a second (a period is the rate, the pass and the
            # 500 ms settle, slow under TSan on a loaded machine); the old rate of 10 s would give at most
            # one discovery in the 8 s waited here
            unit.set_prop(*SETTINGS, 'autoScanRateSecs', dbus.UInt32(1))
            self.assertTrue(wait_until(lambda: unit.discoveries() >= 2, 8), daemon.texts()[-20:])
            self.assertTrue(unit.still_serving())

    def test_wrong_types_while_running_are_skipped_and_a_correct_value_applies(self):
        with FaultyUnit(self) as unit:  # the simulated settings: rate 30 s
            daemon = unit.start()
            self.assertTrue(wait_until(lambda: len(scan_responses(unit.env)) >= 1, 5))
            calls = len(unit.env.hci_calls())
            unit.settings_set_raw('autoScanRateSecs', dbus.String('1'))
            unit.settings_set_raw('powered', dbus.Int32(0))
            self.assertIsNotNone(daemon.wait_line('name: powered', timeout=5), daemon.texts()[-20:])
            self.assertIn('name: autoScanRateSecs', daemon.texts())
            time.sleep(2.5)
            self.assertTrue(unit.alive(), daemon.texts())
            self.assertTrue(unit.still_serving())
            # neither was taken: no one-second periods, and on air again after each reapplication
            self.assertEqual(unit.discoveries(), 0)
            self.assertEqual(last_switch(unit), 'hciconfig hci0 leadv', unit.env.hci_calls()[calls:])
            self.assertTrue(unit.get(ADVERT, 'Advertising'))
            # periods of a second now: two within 8 s, where the 30 s rate kept gives none
            unit.set_prop(*SETTINGS, 'autoScanRateSecs', dbus.UInt32(1))
            self.assertTrue(wait_until(lambda: unit.discoveries() >= 2, 8), daemon.texts()[-20:])
            unit.set_prop(*SETTINGS, 'powered', False)
            self.assertTrue(wait_until(lambda: last_switch(unit) == 'hciconfig hci0 noleadv', 5),
                            unit.env.hci_calls()[calls:])


if __name__ == '__main__':
    unittest.main()
