#!/usr/bin/python3
'''The simulated BlueZ behaves as bluetoothd does where the daemon's tests rely on it.'''
import time
import unittest

import dbus

from harness.bus import PROPS, Bus, Error, pump_for
from harness.peers import ADAPTER, ADAPTER_IFACE, BLUEZ, CHAR_IFACE, DEVICE_IFACE, Bluez
from harness.testenv import TestEnv
from harness.wait import wait_until


class BluezSim(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.env = TestEnv().start()

    @classmethod
    def tearDownClass(cls):
        cls.env.stop()

    def connect(self):
        bus = Bus(self.env.environ['DBUS_SYSTEM_BUS_ADDRESS'])
        self.addCleanup(bus.close)
        return bus

    def test_discovery_is_a_session_per_client_and_ends_when_the_client_leaves(self):
        one, two = self.connect(), self.connect()
        one.call(BLUEZ, ADAPTER, ADAPTER_IFACE, 'StartDiscovery')
        with self.assertRaises(Error) as again:
            one.call(BLUEZ, ADAPTER, ADAPTER_IFACE, 'StartDiscovery')
        self.assertEqual(again.exception.get_dbus_name(), 'org.bluez.Error.InProgress')
        two.call(BLUEZ, ADAPTER, ADAPTER_IFACE, 'StartDiscovery')  # another client joins
        one.call(BLUEZ, ADAPTER, ADAPTER_IFACE, 'StopDiscovery')
        self.assertTrue(Bluez(one).adapter_prop('Discovering'))
        with self.assertRaises(Error) as none:
            one.call(BLUEZ, ADAPTER, ADAPTER_IFACE, 'StopDiscovery')
        self.assertEqual(none.exception.get_dbus_name(), 'org.bluez.Error.Failed')
        self.assertEqual(none.exception.get_dbus_message(), 'No discovery started')
        two.close()
        self.assertTrue(wait_until(lambda: not Bluez(one).adapter_prop('Discovering'), 3, step=0.01))

    def test_switch_behaviours(self):
        bus = self.connect()
        bluez = Bluez(bus)
        bluez.set_switch_behaviour('Pairable', 'ignore', 0)
        bus.set(BLUEZ, ADAPTER, ADAPTER_IFACE, 'Pairable', dbus.Boolean(False))
        self.assertTrue(bluez.adapter_prop('Pairable'))
        bluez.set_switch_behaviour('Pairable', 'delay', 1000)
        start = time.monotonic()
        bus.set(BLUEZ, ADAPTER, ADAPTER_IFACE, 'Pairable', dbus.Boolean(False))
        before = bluez.adapter_prop('Pairable')
        # a read that came back within the delay was taken within it (a starved machine may read later)
        if time.monotonic() - start < 1.0:
            self.assertTrue(before)
        self.assertTrue(wait_until(lambda: not bluez.adapter_prop('Pairable'), 10, step=0.01))
        self.assertGreaterEqual(time.monotonic() - start, 1.0)
        bluez.set_switch_behaviour('Pairable', 'apply', 0)
        bus.set(BLUEZ, ADAPTER, ADAPTER_IFACE, 'Pairable', dbus.Boolean(True))
        self.assertTrue(bluez.adapter_prop('Pairable'))
        with self.assertRaises(Error) as wrong:
            bus.set(BLUEZ, ADAPTER, ADAPTER_IFACE, 'Pairable', dbus.String('yes'))
        self.assertEqual(wrong.exception.get_dbus_name(), 'org.bluez.Error.InvalidArguments')

    def test_camera_state_answers_and_commands(self):
        bus = self.connect()
        bluez = Bluez(bus)
        path = bluez.add_device('AA:00:00:00:0A:01',
                                {'X-Camera': dbus.Boolean(True),
                                 'X-CameraState': dbus.Dictionary({'power': 'U', 'wifi': 'G', 'band': '2.4'},
                                                                  signature='sv')})
        bus.call(BLUEZ, path, DEVICE_IFACE, 'Connect')
        self.assertTrue(wait_until(lambda: bluez.device_prop(path, 'ServicesResolved'), 3, step=0.01))
        notify, write = path + '/service000a/char000d', path + '/service000a/char000b'
        self.assertEqual(str(bluez.get(notify, CHAR_IFACE, 'UUID')), 'fdea0002-0000-1000-8000-00805f9b34fb')
        seen = []
        bus.on_signal(lambda iface, changed, _inv: seen.append(bytes(changed['Value'])) if 'Value' in changed else None,
                      BLUEZ, notify, 'PropertiesChanged', PROPS)
        bus.call(BLUEZ, notify, CHAR_IFACE, 'StartNotify')
        for command in (b'RP\r', b'RF\r', b'RV\r', b'WPZ\r', b'WF5.0G\r'):
            bus.call(BLUEZ, write, CHAR_IFACE, 'WriteValue', command, {}, signature='aya{sv}')
        pump_for(0.3)
        # the first answers tell the state the camera started in
        self.assertEqual(seen[:3], [b'PU\r', b'F2.4G\r', b'V12\r'])
        state = bluez.camera_state(path)
        self.assertEqual((str(state['power']), str(state['band'])), ('Z', '5.0'))
        self.assertEqual([w.encode('latin-1') for w in bluez.camera_writes(path)],
                         [b'RP\r', b'RF\r', b'RV\r', b'WPZ\r', b'WF5.0G\r'])
        # the notify characteristic reads back the last value notified
        self.assertEqual(bytes(bus.call(BLUEZ, notify, CHAR_IFACE, 'ReadValue', {}, signature='a{sv}')), seen[-1])
        bus.call(BLUEZ, path, DEVICE_IFACE, 'Disconnect')
        self.assertFalse(bluez.device_prop(path, 'ServicesResolved'))


if __name__ == '__main__':
    unittest.main()
