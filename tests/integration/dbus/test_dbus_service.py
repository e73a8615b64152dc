#!/usr/bin/python3
'''The daemon's D-Bus API, driven as the unit's other programs drive it: a real client on the user bus
against the daemon binary in the simulated unit, with simulated units, cameras and a phone nearby.'''
import json
import os
import threading
import time
import unittest
import xml.etree.ElementTree as ElementTree

import dbus

from harness.bus import ADVERT, ERROR, INTROSPECTABLE, MANAGER, NAME, PATH, RADIO, SCANNER, Bus, Error
from harness.unit import (CAMERA, NEARBY, PHONE, SLOW_CAMERA, UNIT_3, UNIT_4, Service, documents,
                          scan_responses)
from harness.wait import wait_until

TOP = os.path.join(os.path.dirname(os.path.abspath(__file__)), '..', '..', '..')
XML = os.path.join(TOP, 'packaging', 'com.quorbel.common.Bluetooth1.xml')
INFO, ERR = 6, 3


class Bringup(unittest.TestCase):
    def test_the_name_the_object_manager_and_the_three_interfaces_are_served(self):
        with Service(self) as unit:
            daemon = unit.start()
            self.assertIsNotNone(daemon.wait_line('Run: Adding scanner object...', timeout=5), daemon.texts())
            adding = [t for t in daemon.texts() if t.startswith('Run: Adding ')]
            self.assertEqual(adding, ['Run: Adding radio object...', 'Run: Adding advert object...',
                                      'Run: Adding scanner object...'])
            for path in (PATH, '/'):
                managed = unit.user.call(NAME, path, MANAGER, 'GetManagedObjects')
                self.assertEqual(list(managed.keys()), [PATH], path)
                interfaces = managed[PATH]
                self.assertTrue({RADIO, ADVERT, SCANNER} <= set(interfaces.keys()), path)
                self.assertEqual(set(interfaces[RADIO].keys()), {'Powered', 'Pairable', 'Discoverable'})
                self.assertEqual(dict(interfaces[ADVERT]), {'Advertising': True, 'AdvertSchema': 4})
                self.assertEqual(set(interfaces[SCANNER].keys()),
                                 {'AutoScan', 'AutoScanRateSecs', 'ScannedDevices', 'RemoteCameras'})
                self.assertEqual(interfaces[SCANNER]['AutoScanRateSecs'], 30)

    def test_introspection_shows_every_member_as_the_packaged_description_says(self):
        with Service(self) as unit:
            unit.start()
            served = ElementTree.fromstring(unit.call(INTROSPECTABLE, 'Introspect'))
            packaged = ElementTree.parse(XML).getroot()

            def shape(element):
                return (element.tag, sorted(element.attrib.items()), [shape(child) for child in element])

            def ours(node):
                return {i.get('name'): shape(i) for i in node.findall('interface') if i.get('name').startswith(NAME)}
            self.assertEqual(sorted(ours(served)), [ADVERT, RADIO, SCANNER])
            self.assertEqual(ours(served), ours(packaged))
            # what a reader of the description learns
            radio = next(i for i in served.findall('interface') if i.get('name') == RADIO)
            method = radio.find("method[@name='ConfigKelpBle']")
            self.assertEqual([(a.get('type'), a.get('direction')) for a in method.findall('arg')], [('s', 'in')])
            signal = radio.find("signal[@name='ConfiguredKelpBle']")
            self.assertEqual([a.get('type') for a in signal.findall('arg')], ['(bs)'])
            scanner = next(i for i in served.findall('interface') if i.get('name') == SCANNER)
            self.assertEqual(scanner.find("property[@name='ScannedDevices']").get('access'), 'read')
            self.assertEqual(scanner.find("property[@name='AutoScanRateSecs']").get('access'), 'readwrite')

    def test_a_name_owned_elsewhere_leaves_the_daemon_up_without_its_objects(self):
        with Service(self) as unit:
            unit.user.request_name(NAME)
            daemon = unit.start(served=False)
            line = daemon.wait_line_prefix('Run: Failed to start dbus server, (', timeout=5)
            self.assertIsNotNone(line, daemon.texts())
            self.assertEqual(line.text, 'Run: Failed to start dbus server, (-17)')
            self.assertEqual(line.priority, ERR)
            self.assertEqual([t for t in daemon.texts() if t.startswith('Run: Adding')], [])
            time.sleep(0.5)
            self.assertIsNone(daemon.proc.poll())

    def test_without_usable_backends_there_is_no_name_and_readiness_is_still_reported(self):
        with Service(self, without=['bluez']) as unit:
            daemon = unit.start(served=False)  # READY=1 checked by start()
            self.assertIsNotNone(
                daemon.wait_line('Bluetooth Controller failed to initialise, disabling dbus interface', timeout=5))
            time.sleep(0.5)
            self.assertFalse(unit.user.has_owner(NAME))
            self.assertIsNone(daemon.proc.poll())


class RadioObject(unittest.TestCase):
    def test_the_switches_read_and_write_the_adapter(self):
        with Service(self) as unit:
            unit.start()
            for name in ('Powered', 'Pairable', 'Discoverable'):
                for value in (False, True):
                    unit.set(RADIO, name, dbus.Boolean(value))
                    self.assertTrue(wait_until(lambda: bool(unit.bluez.adapter_prop(name)) == value, 3), name)
                    self.assertEqual(bool(unit.get(RADIO, name)), value, name)
                with self.assertRaises(Error) as raised:
                    unit.set(RADIO, name, dbus.String('yes'))
                self.assertEqual(raised.exception.get_dbus_name(), 'org.freedesktop.DBus.Error.InvalidArgs')
                self.assertTrue(bool(unit.get(RADIO, name)), name)

    def test_unknown_and_foreign_addresses_are_refused_and_the_daemon_stays_on_the_bus(self):
        with Service(self, devices=[UNIT_3, UNIT_4, CAMERA, PHONE]) as unit:
            unit.start()
            unit.call(SCANNER, 'Scan')
            for address, error, message in (
                    ('AA:BB:CC:DD:EE:FF', 'DeviceNotFound', 'Could not find device: AA:BB:CC:DD:EE:FF'),
                    (PHONE, 'DeviceNotFound', 'Could not find device: ' + PHONE),
                    (CAMERA.lower(), 'DeviceNotFound', 'Could not find device: ' + CAMERA.lower()),
                    (UNIT_3, 'DeviceNotAKelpCam', f'Device {UNIT_3} is a Cobalt')):
                with self.assertRaises(Error) as raised:
                    unit.call(RADIO, 'ConfigKelpBle', address)
                self.assertEqual(raised.exception.get_dbus_name(), ERROR + error, address)
                self.assertEqual(raised.exception.get_dbus_message(), message, address)
                self.assertTrue(unit.still_serving(), address)
            # a model the table does not name: an error, not a crash
            with self.assertRaises(Error):
                unit.call(RADIO, 'ConfigKelpBle', UNIT_4)
            self.assertTrue(unit.still_serving())
            # nothing was started on the radio
            self.assertEqual(unit.device_calls(CAMERA, 'Connect'), [])
            self.assertEqual(unit.device_calls(UNIT_3, 'Connect'), [])

    def test_a_camera_is_accepted_at_once_and_its_outcome_follows_as_a_signal(self):
        with Service(self, devices=[SLOW_CAMERA]) as unit:
            unit.start()
            unit.call(SCANNER, 'Scan')
            started = time.monotonic()
            self.assertIsNone(unit.call(RADIO, 'ConfigKelpBle', SLOW_CAMERA))
            self.assertLess(time.monotonic() - started, 1.0)
            self.assertTrue(wait_until(lambda: unit.received('ConfiguredKelpBle'), 20))
            (outcome,) = unit.received('ConfiguredKelpBle')[0]
            success, text = outcome
            self.assertTrue(success)
            camera = json.loads(text)
            self.assertEqual(camera['mac'], SLOW_CAMERA)
            self.assertEqual(camera['remote-cam-info']['ble-info']['powerStatus']['string'], 'On')
            # a unit of radio type 1 puts the camera on 5.0
            self.assertEqual(camera['remote-cam-info']['ble-info']['wifiFrequency'], '5.0')
            self.assertEqual(unit.camera_writes(SLOW_CAMERA), ['RV\r', 'RF\r', 'RP\r', 'WPZ\r', 'WF5.0G\r'])

    def test_only_the_devices_listed_at_the_moment_of_the_call_count(self):
        with Service(self) as unit:
            unit.start()
            unit.call(SCANNER, 'Scan')
            unit.add_nearby(CAMERA)  # in BlueZ, not yet in the daemon's list
            with self.assertRaises(Error) as raised:
                unit.call(RADIO, 'ConfigKelpBle', CAMERA)
            self.assertEqual(raised.exception.get_dbus_name(), ERROR + 'DeviceNotFound')
            unit.call(SCANNER, 'Scan')
            self.assertIsNone(unit.call(RADIO, 'ConfigKelpBle', CAMERA))
            self.assertTrue(wait_until(lambda: unit.received('ConfiguredKelpBle'), 10))


class AdvertObject(unittest.TestCase):
    def test_advertising_switches_only_on_a_change(self):
        with Service(self) as unit:
            unit.start()
            self.assertTrue(wait_until(lambda: len(scan_responses(unit.env)) >= 1, 5))
            calls = len(unit.env.hci_calls())
            unit.set(ADVERT, 'Advertising', True)  # on already: nothing restarts
            time.sleep(0.3)
            self.assertEqual(len(unit.env.hci_calls()), calls, unit.env.hci_calls())
            unit.set(ADVERT, 'Advertising', False)
            self.assertTrue(wait_until(lambda: unit.env.hci_calls()[-1:] == ['hciconfig hci0 noleadv'], 3))
            calls = len(unit.env.hci_calls())
            unit.set(ADVERT, 'Advertising', False)  # off already: only stored
            time.sleep(0.3)
            self.assertEqual(len(unit.env.hci_calls()), calls, unit.env.hci_calls())
            self.assertFalse(unit.get(ADVERT, 'Advertising'))
            unit.set(ADVERT, 'Advertising', True)
            self.assertTrue(wait_until(lambda: 'hciconfig hci0 leadv' in unit.env.hci_calls()[calls:], 3))
            self.assertTrue(unit.get(ADVERT, 'Advertising'))

    def test_the_schema_goes_on_air_and_a_wrong_type_changes_nothing(self):
        with Service(self) as unit:
            unit.start()
            self.assertTrue(wait_until(lambda: len(scan_responses(unit.env)) >= 1, 5))
            sent = len(scan_responses(unit.env))
            for wrong in (dbus.String('3'), dbus.UInt32(3), dbus.Boolean(True)):
                with self.assertRaises(Error) as raised:
                    unit.set(ADVERT, 'AdvertSchema', wrong)
                self.assertEqual(raised.exception.get_dbus_name(), 'org.freedesktop.DBus.Error.InvalidArgs')
            self.assertEqual(unit.get(ADVERT, 'AdvertSchema'), 4)
            self.assertEqual(len(scan_responses(unit.env)), sent)
            unit.set(ADVERT, 'AdvertSchema', dbus.Int32(3))
            self.assertTrue(wait_until(lambda: len(scan_responses(unit.env)) > sent, 3))
            self.assertEqual(scan_responses(unit.env)[-1][2], 3)
            self.assertEqual(unit.get(ADVERT, 'AdvertSchema'), 3)
            # a schema that cannot be built: the old payload is rebuilt, 3 recorded
            unit.set(ADVERT, 'AdvertSchema', dbus.Int32(4))
            unit.set(ADVERT, 'AdvertSchema', dbus.Int32(-1))
            self.assertEqual(unit.get(ADVERT, 'AdvertSchema'), 3)
            self.assertEqual(scan_responses(unit.env)[-1][2], 4)


class ScannerObject(unittest.TestCase):
    def test_scan_with_both_flags_off_leaves_them_off(self):
        with Service(self, devices=[CAMERA, PHONE]) as unit:
            unit.start()
            unit.set(SCANNER, 'AutoScan', False)
            unit.set(ADVERT, 'Advertising', False)
            time.sleep(0.3)
            calls = len(unit.env.hci_calls())
            found = documents(unit.call(SCANNER, 'Scan'))
            self.assertEqual(set(found), {CAMERA, PHONE})
            self.assertEqual(unit.env.hci_calls()[calls:], [])
            self.assertFalse(unit.get(SCANNER, 'AutoScan'))
            self.assertFalse(unit.get(ADVERT, 'Advertising'))
            # and nothing scans on its own afterwards
            discoveries = len(unit.adapter_calls('StartDiscovery'))
            time.sleep(1.5)
            self.assertEqual(len(unit.adapter_calls('StartDiscovery')), discoveries)

    def test_scan_with_both_flags_on_pauses_them_and_resumes_them_before_replying(self):
        with Service(self, devices=[UNIT_3, CAMERA, PHONE], settings={'autoScanRateSecs': 2}) as unit:
            unit.start()
            self.assertTrue(wait_until(lambda: len(scan_responses(unit.env)) >= 1, 5))
            calls = len(unit.env.hci_calls())
            found = documents(unit.call(SCANNER, 'Scan'))
            # off the air for the scan, back on before the reply
            during = unit.env.hci_calls()[calls:]
            self.assertIn('hciconfig hci0 noleadv', during)
            self.assertIn('hciconfig hci0 leadv', during[during.index('hciconfig hci0 noleadv'):])
            self.assertTrue(unit.get(SCANNER, 'AutoScan'))
            self.assertTrue(unit.get(ADVERT, 'Advertising'))
            # the documents of the scanned device JSON
            self.assertEqual(set(found), {UNIT_3, CAMERA, PHONE})
            self.assertEqual(found[UNIT_3]['type'], 1)
            self.assertEqual(found[UNIT_3]['remote-cam-info']['deviceType'], {'number': 3, 'string': 'Cobalt'})
            self.assertEqual(found[CAMERA]['remote-cam-info']['deviceType'], {'number': 7, 'string': 'KelpCam'})
            self.assertEqual(found[PHONE]['type'], 0)
            self.assertEqual(found[PHONE]['class-name'], 'Phone')
            self.assertNotIn('remote-cam-info', found[PHONE])
            # the timer was armed again: auto-scan goes on
            discoveries = len(unit.adapter_calls('StartDiscovery'))
            self.assertTrue(wait_until(lambda: len(unit.adapter_calls('StartDiscovery')) > discoveries, 4))

    def test_the_device_lists_are_json_arrays_empty_as_brackets(self):
        with Service(self) as unit:
            unit.start()
            self.assertEqual(unit.get(SCANNER, 'ScannedDevices'), '[]')
            self.assertEqual(unit.get(SCANNER, 'RemoteCameras'), '[]')
            unit.add_nearby(PHONE)
            unit.call(SCANNER, 'Scan')
            self.assertEqual(list(documents(unit.get(SCANNER, 'ScannedDevices'))), [PHONE])
            self.assertEqual(unit.get(SCANNER, 'RemoteCameras'), '[]')
            unit.add_nearby(CAMERA)
            unit.add_nearby(UNIT_3)
            unit.call(SCANNER, 'Scan')
            self.assertEqual(set(documents(unit.get(SCANNER, 'RemoteCameras'))), {CAMERA, UNIT_3})
            compact = unit.get(SCANNER, 'ScannedDevices')
            self.assertNotIn('\n', compact)
            self.assertNotIn(': ', compact)

    def test_a_new_rate_waits_for_the_next_arming(self):
        with Service(self, settings={'autoScanRateSecs': 2}) as unit:
            unit.start()
            self.assertTrue(wait_until(lambda: len(unit.adapter_calls('StartDiscovery')) >= 1, 4))
            first = len(unit.adapter_calls('StartDiscovery'))
            unit.set(SCANNER, 'AutoScanRateSecs', dbus.Int32(60))
            self.assertEqual(unit.get(SCANNER, 'AutoScanRateSecs'), 60)
            # the period already armed still comes, 2 s after the last
            self.assertTrue(wait_until(lambda: len(unit.adapter_calls('StartDiscovery')) > first, 3.5))
            after = len(unit.adapter_calls('StartDiscovery'))
            time.sleep(3)
            self.assertEqual(len(unit.adapter_calls('StartDiscovery')), after)
            # negative and zero are stored as sent
            for value in (0, -5):
                unit.set(SCANNER, 'AutoScanRateSecs', dbus.Int32(value))
                self.assertEqual(unit.get(SCANNER, 'AutoScanRateSecs'), value)

    def test_auto_scan_switches_the_timer(self):
        with Service(self, settings={'autoScanRateSecs': 1}) as unit:
            unit.start()
            unit.set(SCANNER, 'AutoScan', False)
            self.assertFalse(unit.get(SCANNER, 'AutoScan'))
            time.sleep(0.2)
            discoveries = len(unit.adapter_calls('StartDiscovery'))
            time.sleep(2)
            self.assertEqual(len(unit.adapter_calls('StartDiscovery')), discoveries)
            unit.set(SCANNER, 'AutoScan', True)
            self.assertTrue(wait_until(lambda: len(unit.adapter_calls('StartDiscovery')) > discoveries, 3))
            with self.assertRaises(Error):
                unit.set(SCANNER, 'AutoScan', dbus.Int32(0))
            self.assertTrue(unit.get(SCANNER, 'AutoScan'))

    def test_a_camera_that_appears_is_announced_once(self):
        with Service(self, settings={'autoScanRateSecs': 1}) as unit:
            unit.start()
            unit.add_nearby(CAMERA)
            self.assertTrue(wait_until(lambda: unit.received('DiscoveredRemoteCamera'), 5))
            time.sleep(2.5)
            announced = unit.received('DiscoveredRemoteCamera')
            self.assertEqual(len(announced), 1)
            self.assertEqual(json.loads(announced[0][0])['mac'], CAMERA)

    def test_read_kelp_ble_returns_at_once_and_the_data_follows(self):
        with Service(self, devices=[CAMERA, UNIT_3]) as unit:
            unit.start()
            unit.call(SCANNER, 'Scan')
            started = time.monotonic()
            self.assertIsNone(unit.call(SCANNER, 'ReadKelpBle'))
            self.assertLess(time.monotonic() - started, 1.0)
            self.assertTrue(wait_until(lambda: len(unit.received('NewKelpBleData')) >= 3, 10))
            data = [json.loads(args[0]) for args in unit.received('NewKelpBleData')]
            self.assertEqual({d['mac'] for d in data}, {CAMERA})
            self.assertEqual(data[-1]['remote-cam-info']['ble-info']['bleVersion'], 12)
            changed = [args for args in unit.received('PropertiesChanged') if args[0] == SCANNER]
            self.assertTrue(changed)
            self.assertIn('RemoteCameras', changed[-1][1])
            # only the camera was read; the other unit carries no camera service
            self.assertEqual(unit.camera_writes(CAMERA), ['RV\r', 'RF\r', 'RP\r'])
            self.assertEqual(unit.device_calls(UNIT_3, 'Connect'), [])


class DuringAScan(unittest.TestCase):
    def test_calls_made_during_a_scan_are_answered_after_it(self):
        with Service(self, devices=[CAMERA]) as unit:
            unit.start()
            # BlueZ takes 1.5 s to start discovering: the scan holds the loop that long
            unit.bluez.set_method_behaviour('StartDiscovery', {'delay_ms': dbus.UInt32(1500)})
            result = {}

            def scan():
                with Bus(unit.env.environ['DBUS_SESSION_BUS_ADDRESS']) as bus:
                    result['scan'] = bus.call(NAME, PATH, SCANNER, 'Scan', timeout=30)
            scanning = threading.Thread(target=scan)
            scanning.start()
            time.sleep(0.3)
            asked = time.monotonic()
            self.assertEqual(unit.get(ADVERT, 'AdvertSchema'), 4)
            with self.assertRaises(Error) as raised:
                unit.call(RADIO, 'ConfigKelpBle', 'AA:BB:CC:DD:EE:FF')
            answered = time.monotonic() - asked
            scanning.join(10)
            self.assertIn(CAMERA, documents(result['scan']))
            # answered, as the member table says, once the scan had let the loop go
            self.assertGreater(answered, 0.5)
            self.assertEqual(raised.exception.get_dbus_name(), ERROR + 'DeviceNotFound')
            self.assertTrue(unit.still_serving())


class Shutdown(unittest.TestCase):
    def test_a_stop_during_camera_work_ends_the_daemon_promptly_and_cleanly(self):
        with Service(self, devices=[SLOW_CAMERA, CAMERA]) as unit:
            daemon = unit.start()
            unit.call(SCANNER, 'Scan')
            unit.call(RADIO, 'ConfigKelpBle', SLOW_CAMERA)  # some seconds of GATT work
            # both requests start a worker at once; only once the configuration holds the scan lock
            # does the refresh have to wait for it
            self.assertIsNotNone(daemon.wait_line_prefix('Connected To Bluetooth: Time Elapsed: ', 10),
                                 daemon.texts())
            unit.call(SCANNER, 'ReadKelpBle')
            self.assertIsNotNone(daemon.wait_line_prefix('Configured Power State: Time Elapsed: ', 10),
                                 daemon.texts())
            stopped = time.monotonic()
            status = daemon.stop()
            self.assertEqual(status, 0, daemon.texts())
            self.assertLess(time.monotonic() - stopped, 3.0)
            # the flow in progress ended by disconnecting its camera; the refresh never started
            self.assertFalse(unit.bluez.device_prop(SLOW_CAMERA, 'Connected'))
            self.assertEqual(unit.camera_writes(CAMERA), [])
            self.assertNotIn('Camera work still running at exit', daemon.texts())


class Readme(unittest.TestCase):
    def test_the_readme_examples_work_as_printed(self):
        with open(os.path.join(TOP, 'README.md')) as f:
            text = f.read()
        section = text[text.index('## The D-Bus API'):]
        section = section[:section.index('\n## ', 1)] if '\n## ' in section[1:] else section
        commands = [line.strip() for line in section.splitlines() if line.startswith('    ')]
        self.assertTrue(any(c.startswith('busctl') for c in commands))
        with Service(self, devices=NEARBY, settings={'autoScanRateSecs': 1}) as unit:
            unit.start()
            self.assertTrue(wait_until(lambda: SLOW_CAMERA in unit.get(SCANNER, 'ScannedDevices'), 5))
            prelude = ''
            for command in commands:
                if command.startswith('source '):
                    continue  # the harness's environment stands in for env.sh
                if not command.startswith('busctl'):
                    prelude += command + '\n'
                    continue
                # a monitor runs until stopped: a second of it shows that it starts
                line = ('timeout 1 ' + command) if ' monitor ' in command else command
                result = unit.env.run(['bash', '-c', prelude + line], capture_output=True, text=True)
                self.assertIn(result.returncode, (0, 124) if ' monitor ' in command else (0,),
                              f'{command}\n{result.stderr}')
            self.assertTrue(wait_until(lambda: unit.received('ConfiguredKelpBle'), 20))
            self.assertTrue(unit.still_serving())


class HostileClients(unittest.TestCase):
    def test_wrong_types_missing_arguments_and_large_strings_get_errors_and_the_daemon_goes_on(self):
        big = 'A' * 65536
        with Service(self, devices=[CAMERA]) as unit:
            daemon = unit.start()
            for iface, name in ((RADIO, 'Powered'), (RADIO, 'Pairable'), (RADIO, 'Discoverable'),
                                (ADVERT, 'Advertising'), (ADVERT, 'AdvertSchema'), (SCANNER, 'AutoScan'),
                                (SCANNER, 'AutoScanRateSecs'), (SCANNER, 'ScannedDevices'),
                                (SCANNER, 'RemoteCameras')):
                for value in (dbus.String(big), dbus.Double(1.5), dbus.Array([1, 2], signature='i')):
                    with self.assertRaises(Error, msg=name):
                        unit.set(iface, name, value)
                self.assertTrue(unit.still_serving(), name)
            with self.assertRaises(Error) as raised:
                unit.call(RADIO, 'ConfigKelpBle', big)
            self.assertEqual(raised.exception.get_dbus_name(), ERROR + 'DeviceNotFound')
            for method, args, signature in (('ConfigKelpBle', (), ''), ('ConfigKelpBle', (5,), 'i'),
                                            ('ConfigKelpBle', (CAMERA, CAMERA), 'ss'),
                                            ('Scan', (big,), 's'), ('ReadKelpBle', (1,), 'u')):
                iface = RADIO if method == 'ConfigKelpBle' else SCANNER
                with self.assertRaises(Error, msg=method) as raised:
                    unit.call(iface, method, *args, signature=signature)
                self.assertEqual(raised.exception.get_dbus_name(), 'org.freedesktop.DBus.Error.InvalidArgs')
                self.assertTrue(unit.still_serving(), method)
            # signals are not methods, whatever a client sends them
            for iface, member in ((RADIO, 'ConfiguredKelpBle'), (SCANNER, 'DiscoveredRemoteCamera'),
                                  (SCANNER, 'NewKelpBleData'), (RADIO, 'Unknown'),
                                  ('com.quorbel.common.Bluetooth1.Nothing', 'Scan')):
                for args, signature in (((), ''), ((big,), 's'), (((True, big),), '(bs)')):
                    with self.assertRaises(Error, msg=member) as raised:
                        unit.call(iface, member, *args, signature=signature)
                    self.assertIn(raised.exception.get_dbus_name(),
                                  ('org.freedesktop.DBus.Error.UnknownMethod',
                                   'org.freedesktop.DBus.Error.UnknownInterface'), member)
            self.assertTrue(unit.still_serving())
            self.assertIsNone(daemon.proc.poll())


if __name__ == '__main__':
    unittest.main()
