#!/usr/bin/python3
'''The simulated camera's timed behaviour (sim/kelp_camera.py) as the unit sees it over BlueZ's API.'''
import os
import sys
import time
import unittest

import dbus
from dbus.mainloop.glib import DBusGMainLoop
from gi.repository import GLib

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), '..', '..', 'harness'))
from testenv import TestEnv  # noqa: E402

DBusGMainLoop(set_as_default=True)

PROPS = 'org.freedesktop.DBus.Properties'
CHAR_IFACE = 'org.bluez.GattCharacteristic1'
MOCK_IFACE = 'org.bluez.Mock'


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
        self.bus = dbus.bus.BusConnection(self.env.environ['DBUS_SYSTEM_BUS_ADDRESS'])
        self.addCleanup(self.bus.close)
        self.mock = dbus.Interface(self.bus.get_object('org.bluez', '/'), MOCK_IFACE)
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
        path = str(self.mock.AddLEDevice('hci0', address, props))
        dbus.Interface(self.bus.get_object('org.bluez', path), 'org.bluez.Device1').Connect()
        self.assertTrue(self.wait(lambda: self.device_prop(path, 'ServicesResolved')))
        self.path = path
        self.notify_path = path + '/service000a/char000d'
        self.write_path = path + '/service000a/char000b'
        self.bus.add_signal_receiver(self.on_changed, 'PropertiesChanged', PROPS, 'org.bluez', self.notify_path)
        self.bus.get_object('org.bluez', self.notify_path).StartNotify(dbus_interface=CHAR_IFACE)
        return path

    def device_prop(self, path, name):
        return self.bus.get_object('org.bluez', path).Get('org.bluez.Device1', name, dbus_interface=PROPS)

    def on_changed(self, _iface, changed, _invalidated):
        if 'Value' in changed:
            self.seen.append((time.monotonic() - self.written_at, bytes(changed['Value']).decode()))

    def write(self, text):
        self.written_at = time.monotonic()
        self.bus.get_object('org.bluez', self.write_path).WriteValue(
            dbus.Array(text.encode(), signature='y'), {}, dbus_interface=CHAR_IFACE)

    def run_loop(self, ms, until=None):
        '''Runs the bus for `ms`; then, while `until` does not hold yet, on for up to 10 s more: a loaded
        machine delays the camera's timers, it never brings them forward.'''
        loop = GLib.MainLoop()
        GLib.timeout_add(ms, loop.quit)
        loop.run()
        if until is None or until():
            return
        deadline = time.monotonic() + 10

        def check():
            if until() or time.monotonic() > deadline:
                loop.quit()
                return False
            return True
        GLib.timeout_add(10, check)
        loop.run()

    def seen_at_least(self, count):
        return lambda: len(self.seen) >= count

    def texts(self):
        return [text for _, text in self.seen]

    def wait(self, condition, timeout=3):
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            if condition():
                return True
            time.sleep(0.01)
        return False

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
        state = self.mock.GetCameraState(self.path)
        self.assertEqual((str(state['power']), str(state['wifi'])), ('Z', 'R'))

    def test_power_off_takes_the_access_point_down(self):
        self.camera({'power': 'Z', 'wifi': 'R', 'band': '5.0'}, {'wifi_settle': 'R'})
        self.write('WPU\r')
        self.run_loop(200, self.seen_at_least(1))
        self.assertEqual(self.texts(), ['PU\r'])
        self.assertEqual(str(self.mock.GetCameraState(self.path)['wifi']), 'G')

    def test_without_a_profile_the_camera_answers_at_once_and_leaves_the_wifi_alone(self):
        self.camera({'power': 'U', 'wifi': 'G', 'band': '2.4'})
        self.write('WPZ\r')
        self.run_loop(300, self.seen_at_least(1))
        self.assertEqual(self.texts(), ['PZ\r'])
        self.assertEqual(str(self.mock.GetCameraState(self.path)['wifi']), 'G')

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
        self.assertEqual(str(self.mock.GetCameraState(self.path)['band']), '2.4')

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
        self.assertTrue(self.wait(lambda: not self.device_prop(self.path, 'Connected')))
        self.run_loop(100, self.seen_at_least(1))
        self.assertEqual(self.texts(), ['PU\r'])
        self.assertEqual([bytes(w) for w in self.mock.GetCameraWrites(self.path)], [b'RP\r', b'WPZ\r'])

    def test_profile_can_be_changed_through_set_camera_state(self):
        self.camera({'power': 'U', 'wifi': 'G', 'band': '5.0'})
        self.mock.SetCameraState(self.path, dbus.Dictionary({'power_on_ms': u32(100)}, signature='sv'))
        self.write('WPZ\r')
        self.run_loop(400, self.seen_at_least(2))
        self.assertEqual(self.texts(), ['PU\r', 'PZ\r'])


if __name__ == '__main__':
    unittest.main()
