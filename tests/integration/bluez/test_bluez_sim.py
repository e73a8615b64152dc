#!/usr/bin/python3
'''The simulated BlueZ behaves as bluetoothd does where the daemon's tests rely on it.'''
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

ADAPTER = '/org/bluez/hci0'
ADAPTER_IFACE = 'org.bluez.Adapter1'
PROPS = 'org.freedesktop.DBus.Properties'


class BluezSim(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.env = TestEnv().start()

    @classmethod
    def tearDownClass(cls):
        cls.env.stop()

    def connect(self):
        bus = dbus.bus.BusConnection(self.env.environ['DBUS_SYSTEM_BUS_ADDRESS'])
        self.addCleanup(bus.close)
        return bus

    def prop(self, bus, path, iface, name):
        return bus.get_object('org.bluez', path).Get(iface, name, dbus_interface=PROPS)

    def wait(self, condition, timeout=3):
        deadline = time.monotonic() + timeout
        while not condition():
            if time.monotonic() > deadline:
                return False
            time.sleep(0.01)
        return True

    def test_discovery_is_a_session_per_client_and_ends_when_the_client_leaves(self):
        one, two = self.connect(), self.connect()
        a1 = one.get_object('org.bluez', ADAPTER)
        a2 = two.get_object('org.bluez', ADAPTER)
        a1.StartDiscovery(dbus_interface=ADAPTER_IFACE)
        with self.assertRaises(dbus.exceptions.DBusException) as again:
            a1.StartDiscovery(dbus_interface=ADAPTER_IFACE)
        self.assertEqual(again.exception.get_dbus_name(), 'org.bluez.Error.InProgress')
        a2.StartDiscovery(dbus_interface=ADAPTER_IFACE)  # another client joins
        a1.StopDiscovery(dbus_interface=ADAPTER_IFACE)
        self.assertTrue(self.prop(one, ADAPTER, ADAPTER_IFACE, 'Discovering'))
        with self.assertRaises(dbus.exceptions.DBusException) as none:
            a1.StopDiscovery(dbus_interface=ADAPTER_IFACE)
        self.assertEqual(none.exception.get_dbus_name(), 'org.bluez.Error.Failed')
        self.assertEqual(none.exception.get_dbus_message(), 'No discovery started')
        two.close()
        self.assertTrue(self.wait(lambda: not self.prop(one, ADAPTER, ADAPTER_IFACE, 'Discovering')))

    def test_switch_behaviours(self):
        bus = self.connect()
        adapter = bus.get_object('org.bluez', ADAPTER)
        mock = bus.get_object('org.bluez', '/')
        mock.SetSwitchBehaviour('hci0', 'Pairable', 'ignore', dbus.UInt32(0), dbus_interface='org.bluez.Mock')
        adapter.Set(ADAPTER_IFACE, 'Pairable', dbus.Boolean(False), dbus_interface=PROPS)
        self.assertTrue(self.prop(bus, ADAPTER, ADAPTER_IFACE, 'Pairable'))
        mock.SetSwitchBehaviour('hci0', 'Pairable', 'delay', dbus.UInt32(1000), dbus_interface='org.bluez.Mock')
        start = time.monotonic()
        adapter.Set(ADAPTER_IFACE, 'Pairable', dbus.Boolean(False), dbus_interface=PROPS)
        before = self.prop(bus, ADAPTER, ADAPTER_IFACE, 'Pairable')
        # a read that came back within the delay was taken within it (a starved machine may read later)
        if time.monotonic() - start < 1.0:
            self.assertTrue(before)
        self.assertTrue(self.wait(lambda: not self.prop(bus, ADAPTER, ADAPTER_IFACE, 'Pairable'), 10))
        self.assertGreaterEqual(time.monotonic() - start, 1.0)
        mock.SetSwitchBehaviour('hci0', 'Pairable', 'apply', dbus.UInt32(0), dbus_interface='org.bluez.Mock')
        adapter.Set(ADAPTER_IFACE, 'Pairable', dbus.Boolean(True), dbus_interface=PROPS)
        self.assertTrue(self.prop(bus, ADAPTER, ADAPTER_IFACE, 'Pairable'))
        with self.assertRaises(dbus.exceptions.DBusException) as wrong:
            adapter.Set(ADAPTER_IFACE, 'Pairable', dbus.String('yes'), dbus_interface=PROPS)
        self.assertEqual(wrong.exception.get_dbus_name(), 'org.bluez.Error.InvalidArguments')

    def test_camera_state_answers_and_commands(self):
        bus = self.connect()
        mock = bus.get_object('org.bluez', '/')
        path = mock.AddLEDevice('hci0', 'AA:00:00:00:0A:01',
                                {'X-Camera': dbus.Boolean(True),
                                 'X-CameraState': dbus.Dictionary({'power': 'U', 'wifi': 'G', 'band': '2.4'},
                                                                  signature='sv')},
                                dbus_interface='org.bluez.Mock')
        device = bus.get_object('org.bluez', path)
        device.Connect(dbus_interface='org.bluez.Device1')
        self.assertTrue(self.wait(lambda: self.prop(bus, path, 'org.bluez.Device1', 'ServicesResolved')))
        notify = bus.get_object('org.bluez', path + '/service000a/char000d')
        write = bus.get_object('org.bluez', path + '/service000a/char000b')
        self.assertEqual(str(self.prop(bus, path + '/service000a/char000d', 'org.bluez.GattCharacteristic1',
                                       'UUID')), 'fdea0002-0000-1000-8000-00805f9b34fb')
        seen = []
        bus.add_signal_receiver(lambda iface, changed, _inv: seen.append(bytes(changed['Value']))
                                if 'Value' in changed else None,
                                'PropertiesChanged', PROPS, 'org.bluez', path + '/service000a/char000d')
        notify.StartNotify(dbus_interface='org.bluez.GattCharacteristic1')
        for command in (b'RP\r', b'RF\r', b'RV\r', b'WPZ\r', b'WF5.0G\r'):
            write.WriteValue(dbus.Array(command, signature='y'), {}, dbus_interface='org.bluez.GattCharacteristic1')
        loop = GLib.MainLoop()
        GLib.timeout_add(300, loop.quit)
        loop.run()
        # the first answers tell the state the camera started in
        self.assertEqual(seen[:3], [b'PU\r', b'F2.4G\r', b'V12\r'])
        state = mock.GetCameraState(path, dbus_interface='org.bluez.Mock')
        self.assertEqual((str(state['power']), str(state['band'])), ('Z', '5.0'))
        self.assertEqual([bytes(w) for w in mock.GetCameraWrites(path, dbus_interface='org.bluez.Mock')],
                         [b'RP\r', b'RF\r', b'RV\r', b'WPZ\r', b'WF5.0G\r'])
        # the notify characteristic reads back the last value notified
        self.assertEqual(bytes(notify.ReadValue({}, dbus_interface='org.bluez.GattCharacteristic1')), seen[-1])
        device.Disconnect(dbus_interface='org.bluez.Device1')
        self.assertFalse(self.prop(bus, path, 'org.bluez.Device1', 'ServicesResolved'))


if __name__ == '__main__':
    unittest.main()
