#!/usr/bin/python3
'''The simulated camera's timed behaviour (sim/kelp_camera.py) as the unit sees it over BlueZ's API.'''
import time
import unittest

import dbus

from harness.bus import PROPS, Bus, pump, pump_for
from harness.peers import BLUEZ, CHAR_IFACE, DEVICE_IFACE, Bluez
from harness.testenv import TestEnv
from harness.wait import wait_until


def u32(value):
    return dbus.UInt32(value)


class KelpCamera(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.env = TestEnv().start()
        cls.next_address = 1

    @classmethod
    def tearDownClass(cls):
        cls.env.stop()

    def setUp(self):
        self.bus = Bus(self.env.environ['DBUS_SYSTEM_BUS_ADDRESS'])
        self.addCleanup(self.bus.close)
        self.bluez = Bluez(self.bus)
        self.seen = []      # (seconds since the last write, text) of every notification
        self.written_at = time.monotonic()

    def camera(self, state, profile=None):
        '''A connected camera whose answers are being notified; returns its device path.'''
        address = f'C0:FF:EE:00:02:{KelpCamera.next_address:02X}'
        KelpCamera.next_address += 1
        props = {'Name': 'KelpCam', 'X-Camera': dbus.Boolean(True),
                 'X-CameraState': dbus.Dictionary(state, signature='sv')}
        if profile is not None:
            props['X-Camera-Profile'] = dbus.Dictionary(profile, signature='sv')
        path = self.bluez.add_device(address, props)
        self.bus.call(BLUEZ, path, DEVICE_IFACE, 'Connect')
        self.assertTrue(wait_until(lambda: self.bluez.device_prop(path, 'ServicesResolved'), 3, step=0.01))
        self.path = path
        self.notify_path = path + '/service000a/char000d'
        self.write_path = path + '/service000a/char000b'
        self.bus.on_signal(self.on_changed, BLUEZ, self.notify_path, 'PropertiesChanged', PROPS)
        self.bus.call(BLUEZ, self.notify_path, CHAR_IFACE, 'StartNotify')
        return path

    def on_changed(self, _iface, changed, _invalidated):
        if 'Value' in changed:
            self.seen.append((time.monotonic() - self.written_at, bytes(changed['Value']).decode()))

    def write(self, text):
        self.written_at = time.monotonic()
        self.bus.call(BLUEZ, self.write_path, CHAR_IFACE, 'WriteValue', text.encode(), {}, signature='aya{sv}')

    def run_loop(self, ms, until=None):
        '''Runs the bus for `ms`; then, while `until` does not hold yet, on for up to 10 s more: a loaded
        machine delays the camera's timers, it never brings them forward.'''
        pump_for(ms / 1000)
        if until is not None:
            wait_until(lambda: pump() or until(), 10, step=0.01)

    def seen_at_least(self, count):
        return lambda: len(self.seen) >= count

    def texts(self):
        return [text for _, text in self.seen]

    def test_access_point_boots_after_power_on_and_each_change_is_notified(self):
        self.camera({'power': 'U', 'wifi': 'G', 'band': '2.4'},
                    {'wifi_settle': 'R', 'power_on_ms': u32(200), 'wifi_unavailable_ms': u32(150),
                     'wifi_boot_ms': u32(300)})
        self.write('WPZ\r')
        self.run_loop(1000, self.seen_at_least(4))
        # the command's own answer still has the old letter; the rest comes unasked
        self.assertEqual(self.texts(), ['PU\r', 'PZ\r', 'F2.4B\r', 'F2.4R\r'])
        at = dict((text, when) for when, text in self.seen)
        self.assertGreaterEqual(at['PZ\r'], 0.2)
        self.assertGreaterEqual(at['F2.4B\r'], 0.35)
        self.assertGreaterEqual(at['F2.4R\r'], 0.65)
        state = self.bluez.camera_state(self.path)
        self.assertEqual((str(state['power']), str(state['wifi'])), ('Z', 'R'))

    def test_power_off_takes_the_access_point_down(self):
        self.camera({'power': 'Z', 'wifi': 'R', 'band': '5.0'}, {'wifi_settle': 'R'})
        self.write('WPU\r')
        self.run_loop(200, self.seen_at_least(1))
        self.assertEqual(self.texts(), ['PU\r'])
        self.assertEqual(str(self.bluez.camera_state(self.path)['wifi']), 'G')

    def test_without_a_profile_the_camera_answers_at_once_and_leaves_the_wifi_alone(self):
        self.camera({'power': 'U', 'wifi': 'G', 'band': '2.4'})
        self.write('WPZ\r')
        self.run_loop(300, self.seen_at_least(1))
        self.assertEqual(self.texts(), ['PZ\r'])
        self.assertEqual(str(self.bluez.camera_state(self.path)['wifi']), 'G')

    def test_an_access_point_that_never_comes_up_stays_booting(self):
        self.camera({'power': 'U', 'wifi': 'G', 'band': '5.0'}, {'wifi_settle': 'B', 'wifi_boot_ms': u32(50)})
        self.write('WPZ\r')
        self.run_loop(500, self.seen_at_least(2))
        self.assertEqual(self.texts(), ['PZ\r', 'F5.0B\r'])

    def test_band_change_passes_through_booting(self):
        self.camera({'power': 'Z', 'wifi': 'R', 'band': '2.4'}, {'band_boot_ms': u32(200)})
        self.write('WF5.0G\r')
        self.run_loop(600, self.seen_at_least(2))
        self.assertEqual(self.texts(), ['F5.0B\r', 'F5.0R\r'])
        self.assertGreaterEqual(self.seen[1][0], 0.2)

    def test_delayed_band_change_is_notified_by_itself(self):
        self.camera({'power': 'Z', 'wifi': 'R', 'band': '2.4'}, {'band_change_ms': u32(150)})
        self.write('WF5.0G\r')
        self.run_loop(500, self.seen_at_least(2))
        self.assertEqual(self.texts(), ['F2.4R\r', 'F5.0R\r'])
        self.assertGreaterEqual(self.seen[1][0], 0.15)

    def test_wrong_band(self):
        self.camera({'power': 'Z', 'wifi': 'R', 'band': '2.4'}, {'band_applied': '2.4'})
        self.write('WF5.0G\r')
        self.run_loop(300, self.seen_at_least(1))
        self.assertEqual(self.texts(), ['F2.4R\r'])
        self.assertEqual(str(self.bluez.camera_state(self.path)['band']), '2.4')

    def test_settles_connected(self):
        self.camera({'power': 'U', 'wifi': 'G', 'band': '5.0'}, {'wifi_settle': 'C'})
        self.write('WPZ\r')
        self.run_loop(300, lambda: self.texts()[-1:] == ['F5.0C\r'])
        self.assertEqual(self.texts()[-1], 'F5.0C\r')

    def test_link_dropped_on_a_command(self):
        self.camera({'power': 'U', 'wifi': 'G', 'band': '5.0'}, {'drop_link_on': 'WP'})
        self.write('RP\r')
        self.run_loop(100, self.seen_at_least(1))
        self.assertEqual(self.texts(), ['PU\r'])
        self.write('WPZ\r')  # accepted, never answered
        self.assertTrue(wait_until(lambda: not self.bluez.device_prop(self.path, 'Connected'), 3, step=0.01))
        self.run_loop(100, self.seen_at_least(1))
        self.assertEqual(self.texts(), ['PU\r'])
        self.assertEqual(self.bluez.camera_writes(self.path), ['RP\r', 'WPZ\r'])

    def test_profile_can_be_changed_through_set_camera_state(self):
        self.camera({'power': 'U', 'wifi': 'G', 'band': '5.0'})
        self.bluez.set_camera_state(self.path, {'power_on_ms': u32(100)})
        self.write('WPZ\r')
        self.run_loop(400, self.seen_at_least(2))
        self.assertEqual(self.texts(), ['PU\r', 'PZ\r'])


if __name__ == '__main__':
    unittest.main()
