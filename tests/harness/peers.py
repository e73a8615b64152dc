'''The simulated peers of sim/ as the tests drive them: their names and objects, and the controls that
python3-dbusmock and the simulated BlueZ add to them, all through one harness.bus.Bus.'''
import dbus

from harness.bus import MOCK, Error

BLUEZ = 'org.bluez'
BLUEZ_MOCK = 'org.bluez.Mock'
ADAPTER = '/org/bluez/hci0'
ADAPTER_IFACE = 'org.bluez.Adapter1'
DEVICE_IFACE = 'org.bluez.Device1'
CHAR_IFACE = 'org.bluez.GattCharacteristic1'
SETTINGS = ('com.quorbel.common.Settings1', '/com/quorbel/common/Settings1/bluetooth')
SETTINGS_IFACE = 'com.quorbel.common.Settings1'
NETWORK = ('com.quorbel.Network1', '/com/quorbel/Network1')
POWER = ('com.quorbel.common.Pylon1', '/com/quorbel/common/Pylon1/power')
SYSTEMD = ('org.freedesktop.systemd1', '/org/freedesktop/systemd1')
COMPANY = 0x05F3


def device_path(address):
    return ADAPTER + '/dev_' + address.replace(':', '_')


def set_prop(bus, service, path, name, value):
    '''A property of a dbusmock peer (the sibling daemons), changed and announced as the peer does.'''
    bus.call(service, path, MOCK, 'SetProp', name, value, signature='sv')


def restarts(bus):
    '''The units the simulated systemd was asked to restart, in order.'''
    return [str(u) for u in bus.call(*SYSTEMD, MOCK, 'GetRestarts')]


class Bluez:
    '''The simulated BlueZ (sim/bluez_sim.py) on the system bus `bus`.'''

    def __init__(self, bus):
        self.bus = bus

    def control(self, method, *args, **kw):
        return self.bus.call(BLUEZ, '/', BLUEZ_MOCK, method, *args, **kw)

    def add_device(self, address, props):
        '''A device near hci0; returns its object path.'''
        return str(self.control('AddLEDevice', 'hci0', address, dbus.Dictionary(props, signature='sv'),
                                signature='ssa{sv}'))

    def add_devices(self, count, props):
        '''`count` devices alike but for their addresses.'''
        if count:
            self.control('AddLEDevices', 'hci0', dbus.UInt32(count), dbus.Dictionary(props, signature='sv'),
                         signature='sua{sv}', timeout=120)

    def add_units_and_phones(self, count, prefix):
        '''Half of `count` other units advertising a V3 payload (listed as remote cameras too), half phones
        without manufacturer data; their names start with `prefix`.'''
        payload = [0x03, 0x00, 0x03, 0x02, 0x0A, 0x00, 0x1E, 0x0A] + list(f'{prefix.capitalize()}Net'.encode())
        unit = {'Name': dbus.String(f'{prefix}-unit'), 'RSSI': dbus.Int16(-60),
                'ManufacturerData': dbus.Dictionary({dbus.UInt16(COMPANY): dbus.Array(payload, signature='y')},
                                                    signature='qv')}
        phone = {'Name': dbus.String(f'{prefix}-phone'), 'RSSI': dbus.Int16(-70), 'Class': dbus.UInt32(0x5A020C)}
        self.add_devices(count // 2, unit)
        self.add_devices(count - count // 2, phone)

    def set_method_behaviour(self, method, behaviour, path=ADAPTER):
        self.control('SetMethodBehaviour', path, method, behaviour, signature='osa{sv}')

    def set_switch_behaviour(self, prop, mode, delay_ms):
        self.control('SetSwitchBehaviour', 'hci0', prop, mode, delay_ms, signature='sssu')

    def remove_adapter(self):
        self.control('RemoveAdapter', 'hci0', signature='s')

    def add_adapter(self, alias='unit-sim'):
        self.control('AddAdapter', 'hci0', alias, signature='ss')

    def calls(self, path, method):
        '''The calls of `method` the object at `path` has had, as dbusmock logs them.'''
        return list(self.bus.call(BLUEZ, path, MOCK, 'GetMethodCalls', method, signature='s'))

    def adapter_calls(self, method):
        return self.calls(ADAPTER, method)

    def device_calls(self, address, method):
        return self.calls(device_path(address), method)

    def powered_sets(self):
        '''The values the adapter's Powered was set to, in order.'''
        return [bool(args[2]) for _, args in self.adapter_calls('Set') if str(args[1]) == 'Powered']

    def discoveries(self):
        '''StartDiscovery calls the current BlueZ has seen on the current hci0; 0 while there is none.'''
        try:
            return len(self.adapter_calls('StartDiscovery'))
        except Error:
            return 0

    def get(self, path, iface, name):
        return self.bus.get(BLUEZ, path, iface, name)

    def adapter_prop(self, name):
        return self.get(ADAPTER, ADAPTER_IFACE, name)

    def device_prop(self, address_or_path, name):
        path = address_or_path if address_or_path.startswith('/') else device_path(address_or_path)
        return self.get(path, DEVICE_IFACE, name)

    def camera_state(self, path):
        return self.control('GetCameraState', path, signature='o')

    def set_camera_state(self, path, state):
        self.control('SetCameraState', path, state, signature='oa{sv}')

    def camera_writes(self, address_or_path):
        '''The commands written to a camera, as text.'''
        path = address_or_path if address_or_path.startswith('/') else device_path(address_or_path)
        return [bytes(w).decode('latin-1') for w in self.control('GetCameraWrites', path, signature='o')]

