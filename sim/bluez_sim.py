# -*- coding: utf-8 -*-
'''Simulated BlueZ: org.bluez on the system bus, with simulated remote cameras.

A python3-dbusmock template (tested with python3-dbusmock 0.28, Debian 12):

    /usr/bin/python3 -m dbusmock --system -t sim/bluez_sim.py -p '{"adapter": "hci0"}'

It implements the parts of BlueZ's D-Bus API that the daemon uses, with BlueZ's semantics and
error names: org.freedesktop.DBus.ObjectManager on "/", org.bluez.AgentManager1 and
org.bluez.ProfileManager1 on /org/bluez, Adapter1, Device1, GattService1, GattCharacteristic1 and
GattDescriptor1. Like bluetoothd:
  * discovery is a per-client session: StartDiscovery twice from one client gives
    org.bluez.Error.InProgress, StopDiscovery without a session org.bluez.Error.Failed
    "No discovery started"; Discovering is true while any client discovers; a client that leaves
    the bus loses its session;
  * Properties.Set on an adapter switch emits PropertiesChanged before the reply;
  * Connect sets Connected, then exports the GATT database and sets ServicesResolved a little later;
    Disconnect (or a dropped link) clears both and removes the GATT objects;
  * Pair connects an LE device first; RemoveDevice disconnects and removes the device with its children;
  * a characteristic notifies (PropertiesChanged of Value) only after StartNotify, and a camera's
    answer goes out after the WriteValue reply.

Parameters (-p JSON): adapter (create this adapter, e.g. "hci0"), alias, discovery_delay_ms (20: when
devices waiting for discovery appear), resolve_delay_ms (20: Connect -> ServicesResolved),
pair_connects (true), camera_<key> (defaults of every new camera, see RemoteCamera).

Control API, interface org.bluez.Mock on "/":
  AddAdapter(s name, s alias) -> o
  RemoveAdapter(s name)
  SetSwitchBehaviour(s adapter, s property, s mode, u delay_ms)
      How a Properties.Set of Powered, Pairable or Discoverable is reflected: mode "apply" (at once,
      the default), "ignore" (accepted but never applied), "delay" (applied delay_ms after the reply).
  AddLEDevice(s adapter, s address, a{sv} props) -> o
      props: any Device1 property with its D-Bus type, e.g. {'Name': <'CAM-1'>, 'RSSI': <int16 -52>,
      'Class': <uint32 0>, 'ManufacturerData': <{uint16 1523: <[byte 1, 2, 3]>}>}, plus
        'X-Camera' (b): the device is a remote camera (GATT service exported once connected),
        'X-CameraState' (a{sv}): initial camera state, keys as SetCameraState,
        'X-Camera-Profile' (a{sv}): the camera's timing and failures (sim/kelp_camera.py),
        'X-OnlyOnDiscovery' (b): the device appears only once discovery runs.
      Adding a known address updates its properties, as a new advertisement would.
  AddLEDevices(s adapter, u count, a{sv} props) -> ao
      Bulk creation: addresses 10:00:00:NN:NN:NN counting up from the last bulk device, Name (if given)
      suffixed with "-<n>"; other props as AddLEDevice.
  UpdateDevice(o device, a{sv} props)      add or change Device1 properties (PropertiesChanged);
                                           a new Name also renames an Alias that was not set by hand
  RemoveLEDevice(o device)                 the device vanishes (InterfacesRemoved, children first)
  SimulateDisconnect(o device)             the remote side dropped the link
  AddGattService(o device, s uuid, as characteristic_uuids) -> o
      Adds a plain service (read/write characteristics) to the device's GATT database, after the
      ones it has; exported with the database (at once when the services are resolved).
  SetCameraState(o device, a{sv} state)    keys 'power' (s, one letter), 'wifi' (s, one letter),
                                           'band' (s, "5.0"), 'version' (y), and the profile
                                           keys of sim/kelp_camera.py
  GetCameraState(o device) -> a{sv}
  SetCameraResponse(o device, s command, s response)
      A fixed answer to one command (text with "\\r"), overriding the camera's own; "" = silence.
  CameraNotify(o device, ay value)         an unsolicited notification
  GetCameraWrites(o device) -> aay         everything written to the camera's command characteristic
  SetMethodBehaviour(o path, s method, a{sv} behaviour)
      For any simulated BlueZ method of that object (also "Set" for Properties.Set): 'delay_ms' (u),
      'error' (s, D-Bus error name), 'message' (s), 'count' (i: calls that get the error, -1 forever);
      for a device's Connect also 'quiet' (b): Connected turns true without PropertiesChanged, as real
      bluetoothd does when the ATT link came up before the kernel's connection event.
      An empty dictionary restores the normal behaviour.

dbusmock's own org.freedesktop.DBus.Mock API (GetCalls, GetMethodCalls, ClearCalls, ...) works on every
object; every simulated BlueZ method call is recorded there.
'''

import os
import sys
import time

import dbus
import dbus.service
from gi.repository import GLib

from dbusmock import OBJECT_MANAGER_IFACE, mockobject

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import kelp_camera  # noqa: E402  pylint: disable=wrong-import-position

BUS_NAME = 'org.bluez'
MAIN_OBJ = '/'
SYSTEM_BUS = True
IS_OBJECT_MANAGER = True

MOCK_IFACE = 'org.bluez.Mock'
ADAPTER_IFACE = 'org.bluez.Adapter1'
DEVICE_IFACE = 'org.bluez.Device1'
SERVICE_IFACE = 'org.bluez.GattService1'
CHAR_IFACE = 'org.bluez.GattCharacteristic1'
DESC_IFACE = 'org.bluez.GattDescriptor1'
PROPS_IFACE = 'org.freedesktop.DBus.Properties'

CAMERA_SERVICE_UUID = 'fdeafdea-0000-1000-8000-00805f9b34fb'
CAMERA_WRITE_UUID = 'fdea0001-0000-1000-8000-00805f9b34fb'
CAMERA_NOTIFY_UUID = 'fdea0002-0000-1000-8000-00805f9b34fb'
CCC_UUID = '00002902-0000-1000-8000-00805f9b34fb'

SWITCHES = ('Powered', 'Pairable', 'Discoverable')
ADAPTER_WRITABLE = {'Alias': 's', 'Powered': 'b', 'Pairable': 'b', 'Discoverable': 'b',
                    'DiscoverableTimeout': 'u', 'PairableTimeout': 'u'}
DEVICE_WRITABLE = {'Alias': 's', 'Trusted': 'b', 'Blocked': 'b', 'WakeAllowed': 'b'}

# one mock process is one bluetoothd
_params = {}
_state = {'bulk_next': 0}


# ---------------------------------------------------------------- helpers

def _err(name, message=''):
    return dbus.exceptions.DBusException(message or name, name=name)


def _manager():
    # mockobject.objects['/'] only exists once load() has returned
    return _params['__main__']


def _variant(value):
    # containers carry their own signature; dbusmock's wrapper only handles scalars
    if isinstance(value, (dbus.Array, dbus.Dictionary, dbus.Struct)):
        return value
    return mockobject._wrap_in_dbus_variant(value)  # pylint: disable=protected-access


def _bytes(data):
    if isinstance(data, str):
        data = data.encode('latin-1')
    return dbus.Array([dbus.Byte(b) for b in data], signature='y')


def _later(delay_ms, fn, *args):
    '''Runs fn(*args) once on the main loop after delay_ms.'''
    def once():
        fn(*args)
        return False
    GLib.timeout_add(max(0, int(delay_ms)), once)


def _emit_changed(obj, iface, changed, invalidated=()):
    obj.EmitSignal(PROPS_IFACE, 'PropertiesChanged', 'sa{sv}as', [
        iface, dbus.Dictionary({k: _variant(v) for k, v in changed.items()}, signature='sv'),
        dbus.Array(list(invalidated), signature='s')])


def _store(obj, iface, changed):
    '''Stores properties (adding missing ones) and emits one PropertiesChanged.'''
    props = obj.props.setdefault(iface, {})
    really = {k: v for k, v in changed.items() if k not in props or props[k] != v}
    props.update(changed)
    if really:
        _emit_changed(obj, iface, really)


def _export(path, iface, props, methods=()):
    '''Exports a new object with its simulated methods and announces it (InterfacesAdded).'''
    man = _manager()
    man.AddObject(path, iface, dbus.Dictionary(props, signature='sv'), [])
    obj = mockobject.objects[path]
    for name, fn in methods:
        obj.methods.setdefault(fn._dbus_interface, {})[name] = (  # pylint: disable=protected-access
            fn._dbus_in_signature, fn._dbus_out_signature, fn, fn)  # pylint: disable=protected-access
    obj.behaviour = {}
    man.EmitSignal(OBJECT_MANAGER_IFACE, 'InterfacesAdded', 'oa{sa{sv}}', [
        dbus.ObjectPath(path), dbus.Dictionary({iface: obj.props[iface]}, signature='sa{sv}')])
    return obj


def _unexport(path):
    '''Removes an object and its children, deepest first, announcing each (InterfacesRemoved).'''
    for child in sorted((p for p in mockobject.objects if p.startswith(path + '/')), key=len, reverse=True):
        _unexport_one(child)
    _unexport_one(path)


def _unexport_one(path):
    obj = mockobject.objects.get(path)
    if obj is None:
        return
    ifaces = [i for i in obj.props.keys() if i.startswith('org.bluez.')]
    man = _manager()
    man.RemoveObject(path)
    man.EmitSignal(OBJECT_MANAGER_IFACE, 'InterfacesRemoved', 'oas', [
        dbus.ObjectPath(path), dbus.Array(ifaces, signature='s')])


# ---------------------------------------------------------------- simulated methods
# Every simulated BlueZ method replies asynchronously, so that SetMethodBehaviour can delay it or make
# it fail, and is recorded in dbusmock's call log.

def _invoke(obj, name, args, sender, reply, fail, impl):
    obj.log(f'{name}{mockobject._format_args(args)} [{obj.path}]')  # pylint: disable=protected-access
    obj.call_log.append((int(time.time()), name, args))
    obj.MethodCalled(name, args)
    behaviour = getattr(obj, 'behaviour', {}).get(name, {})

    def run():
        if behaviour.get('error') and behaviour.get('count', -1) != 0:
            if behaviour.get('count', -1) > 0:
                behaviour['count'] -= 1
            fail(_err(str(behaviour['error']), str(behaviour.get('message', ''))))
            return
        try:
            result = impl(obj, sender, *args)
        except dbus.exceptions.DBusException as e:
            fail(e)
            return
        if result is None:
            reply()
        else:
            reply(result)

    delay = int(behaviour.get('delay_ms', 0))
    if delay > 0:
        _later(delay, run)
    else:
        run()


def _method(iface, name, in_sig, out_sig, impl):
    '''A dbus-python method named `name` that runs impl(obj, sender, *args) through _invoke.'''
    count = len(list(dbus.Signature(in_sig)))
    params = ''.join(f'a{i}, ' for i in range(count))
    source = (f'def {name}(self, {params}sender=None, reply=None, fail=None):\n'
              f'    _invoke(self, "{name}", [{params}], sender, reply, fail, impl)\n')
    namespace = {'_invoke': _invoke, 'impl': impl}
    exec(source, namespace)  # pylint: disable=exec-used
    fn = dbus.service.method(iface, in_signature=in_sig, out_signature=out_sig, sender_keyword='sender',
                             async_callbacks=('reply', 'fail'))(namespace[name])
    return name, fn


def _check_type(value, sig, name):
    ok = {'b': isinstance(value, dbus.Boolean), 's': isinstance(value, dbus.String),
          'u': isinstance(value, dbus.UInt32)}[sig]
    if not ok:
        raise _err('org.bluez.Error.InvalidArguments', f'Invalid arguments in method call ({name})')


def _properties_set(writable, on_set):
    def impl(obj, _sender, iface, name, value):
        iface, name = str(iface), str(name)
        if iface not in obj.props:
            raise _err('org.freedesktop.DBus.Error.UnknownInterface', f'No such interface {iface}')
        if name not in obj.props[iface]:
            raise _err('org.freedesktop.DBus.Error.UnknownProperty', f'No such property {name}')
        if name not in writable:
            raise _err('org.freedesktop.DBus.Error.PropertyReadOnly', f'Property {name} is read-only')
        _check_type(value, writable[name], name)
        on_set(obj, name, value)
    return _method(PROPS_IFACE, 'Set', 'ssv', '', impl)


# ---------------------------------------------------------------- Adapter1

def _adapter_apply(adapter, name, value):
    changed = {name: value}
    if name == 'Powered' and not value:
        # powering off ends every discovery
        adapter.discovery_clients.clear()
        changed['Discovering'] = dbus.Boolean(False)
    _store(adapter, ADAPTER_IFACE, changed)


def _adapter_set(adapter, name, value):
    mode, delay_ms = adapter.switch_modes.get(name, ('apply', 0))
    if mode == 'ignore':
        adapter.log(f'Set {name} accepted, not applied (SetSwitchBehaviour)')
    elif mode == 'delay':
        _later(delay_ms, _adapter_apply, adapter, name, value)
    else:
        _adapter_apply(adapter, name, value)


def _start_discovery(adapter, sender):
    props = adapter.props[ADAPTER_IFACE]
    if not props['Powered']:
        raise _err('org.bluez.Error.NotReady', 'Resource Not Ready')
    if sender in adapter.discovery_clients:
        raise _err('org.bluez.Error.InProgress', 'Operation already in progress')
    adapter.discovery_clients.add(sender)
    _store(adapter, ADAPTER_IFACE, {'Discovering': dbus.Boolean(True)})
    _later(_params.get('discovery_delay_ms', 20), _announce_waiting, adapter.path)


def _stop_discovery(adapter, sender):
    if sender not in adapter.discovery_clients:
        raise _err('org.bluez.Error.Failed', 'No discovery started')
    adapter.discovery_clients.discard(sender)
    if not adapter.discovery_clients:
        _store(adapter, ADAPTER_IFACE, {'Discovering': dbus.Boolean(False)})


def _client_left(name, old_owner, new_owner):
    '''BlueZ ends the discovery session of a client that leaves the bus.'''
    if not old_owner or new_owner or not name.startswith(':'):
        return
    for obj in list(mockobject.objects.values()):
        clients = getattr(obj, 'discovery_clients', None)
        if clients is not None and name in clients:
            clients.discard(name)
            if not clients:
                _store(obj, ADAPTER_IFACE, {'Discovering': dbus.Boolean(False)})


def _announce_waiting(adapter_path):
    adapter = mockobject.objects.get(adapter_path)
    if adapter is None or not adapter.discovery_clients:
        return
    while adapter.waiting:
        address, props = adapter.waiting.pop(0)
        _add_device(adapter_path, address, props)


def _remove_device(adapter, _sender, device):
    device = str(device)
    obj = mockobject.objects.get(device)
    if obj is None or not device.startswith(adapter.path + '/') or DEVICE_IFACE not in obj.props:
        raise _err('org.bluez.Error.DoesNotExist', 'Does Not Exist')
    _drop_link(obj)
    _unexport(device)


def _set_discovery_filter(adapter, _sender, flt):
    adapter.discovery_filter = dict(flt)


ADAPTER_METHODS = [
    _method(ADAPTER_IFACE, 'StartDiscovery', '', '', _start_discovery),
    _method(ADAPTER_IFACE, 'StopDiscovery', '', '', _stop_discovery),
    _method(ADAPTER_IFACE, 'RemoveDevice', 'o', '', _remove_device),
    _method(ADAPTER_IFACE, 'SetDiscoveryFilter', 'a{sv}', '', _set_discovery_filter),
    _method(ADAPTER_IFACE, 'GetDiscoveryFilters', '', 'as',
            lambda *_: dbus.Array(['UUIDs', 'RSSI', 'Pathloss', 'Transport', 'DuplicateData',
                                   'Discoverable', 'Pattern'], signature='s')),
    _properties_set(ADAPTER_WRITABLE, _adapter_set),
]


def _add_adapter(name, alias):
    path = '/org/bluez/' + name
    if path in mockobject.objects:
        raise _err('org.bluez.Mock.Error', f'{path} exists')
    index = int(name[3:]) if name[3:].isdigit() else 0
    props = {
        'Address': dbus.String(f'00:1A:7D:DA:71:{index:02X}'),
        'AddressType': dbus.String('public'),
        'Name': dbus.String(alias),
        'Alias': dbus.String(alias),
        'Class': dbus.UInt32(0),
        'Powered': dbus.Boolean(True),
        'Discoverable': dbus.Boolean(False),
        'DiscoverableTimeout': dbus.UInt32(180),
        'Pairable': dbus.Boolean(True),
        'PairableTimeout': dbus.UInt32(0),
        'Discovering': dbus.Boolean(False),
        'UUIDs': dbus.Array(['00001800-0000-1000-8000-00805f9b34fb', '00001801-0000-1000-8000-00805f9b34fb'],
                            signature='s'),
        'Modalias': dbus.String('usb:v1D6Bp0246d0542'),
        'Roles': dbus.Array(['central', 'peripheral'], signature='s'),
    }
    adapter = _export(path, ADAPTER_IFACE, props, ADAPTER_METHODS)
    adapter.waiting = []            # (address, props) of devices that appear once discovery runs
    adapter.discovery_clients = set()
    adapter.discovery_filter = {}
    adapter.switch_modes = {}       # property -> (mode, delay_ms)
    return path


# ---------------------------------------------------------------- Device1

def _device(path):
    obj = mockobject.objects.get(str(path))
    if obj is None or DEVICE_IFACE not in obj.props:
        raise _err('org.bluez.Mock.Error', f'no device {path}')
    return obj


def _connect(dev, _sender=None):
    if dev.props[DEVICE_IFACE]['Connected']:
        raise _err('org.bluez.Error.AlreadyConnected', 'Already Connected')
    if getattr(dev, 'behaviour', {}).get('Connect', {}).get('quiet'):
        # as bluetoothd does when the ATT link is up before the kernel reports the connection
        dev.props[DEVICE_IFACE]['Connected'] = dbus.Boolean(True)
    else:
        _store(dev, DEVICE_IFACE, {'Connected': dbus.Boolean(True)})
    _later(_params.get('resolve_delay_ms', 20), _resolve_services, dev.path)


def _resolve_services(path):
    dev = mockobject.objects.get(path)
    if dev is None or not dev.props[DEVICE_IFACE]['Connected']:
        return
    _export_gatt(dev)
    _store(dev, DEVICE_IFACE, {'ServicesResolved': dbus.Boolean(True)})


def _drop_link(dev):
    props = dev.props[DEVICE_IFACE]
    if props['ServicesResolved']:
        _store(dev, DEVICE_IFACE, {'ServicesResolved': dbus.Boolean(False)})
    if props['Connected']:
        _store(dev, DEVICE_IFACE, {'Connected': dbus.Boolean(False)})
    # BlueZ drops the remote GATT objects with the link; the next Connect exports them again
    for service in dev.gatt:
        _unexport(service.path)
    if dev.camera is not None:
        dev.camera.link_dropped()


def _disconnect(dev, _sender):
    if not dev.props[DEVICE_IFACE]['Connected']:
        raise _err('org.bluez.Error.NotConnected', 'Not Connected')
    _drop_link(dev)


def _pair(dev, _sender):
    if dev.props[DEVICE_IFACE]['Paired']:
        raise _err('org.bluez.Error.AlreadyExists', 'Already Exists')
    if _params.get('pair_connects', True) and not dev.props[DEVICE_IFACE]['Connected']:
        _connect(dev)  # an LE device is connected in order to pair
    _store(dev, DEVICE_IFACE, {'Paired': dbus.Boolean(True)})


def _device_set(dev, name, value):
    _store(dev, DEVICE_IFACE, {name: value})
    if name == 'Alias':
        dev.alias_set = bool(value)


DEVICE_METHODS = [
    _method(DEVICE_IFACE, 'Connect', '', '', _connect),
    _method(DEVICE_IFACE, 'Disconnect', '', '', _disconnect),
    _method(DEVICE_IFACE, 'Pair', '', '', _pair),
    _method(DEVICE_IFACE, 'CancelPairing', '', '', lambda *_: None),
    _method(DEVICE_IFACE, 'ConnectProfile', 's', '', lambda *_: None),
    _method(DEVICE_IFACE, 'DisconnectProfile', 's', '', lambda *_: None),
    _properties_set(DEVICE_WRITABLE, _device_set),
]


def _device_path(adapter_path, address):
    return adapter_path + '/dev_' + str(address).replace(':', '_').upper()


def _split(props):
    '''Device1 properties and the X- pseudo-properties of the control API.'''
    real = {str(k): v for k, v in props.items() if not str(k).startswith('X-')}
    extra = {str(k): v for k, v in props.items() if str(k).startswith('X-')}
    return real, extra


def _add_device(adapter_path, address, props):
    path = _device_path(adapter_path, address)
    real, extra = _split(props)
    if path in mockobject.objects:
        _update_device(mockobject.objects[path], real)
        return path
    base = {
        'Address': dbus.String(address),
        'AddressType': dbus.String('public'),
        'Alias': dbus.String(str(real.get('Name', address.replace(':', '-')))),
        'Paired': dbus.Boolean(False),
        'Trusted': dbus.Boolean(False),
        'Blocked': dbus.Boolean(False),
        'LegacyPairing': dbus.Boolean(False),
        'Connected': dbus.Boolean(False),
        'UUIDs': dbus.Array([], signature='s'),
        'Adapter': dbus.ObjectPath(adapter_path),
        'ServicesResolved': dbus.Boolean(False),
        'WakeAllowed': dbus.Boolean(False),
    }
    camera = bool(extra.get('X-Camera', False))
    if camera and 'UUIDs' not in real:
        base['UUIDs'] = dbus.Array([CAMERA_SERVICE_UUID], signature='s')
    base.update(real)
    dev = _export(path, DEVICE_IFACE, base, DEVICE_METHODS)
    dev.alias_set = 'Alias' in real
    dev.gatt = []        # GattServiceDef, in handle order
    dev.camera = None
    if camera:
        dev.camera = KelpCamera(dev, _camera_defaults())
        dev.camera.set_state(extra.get('X-CameraState', {}))
        dev.camera.set_profile(extra.get('X-Camera-Profile', {}))
        dev.gatt.append(dev.camera.service_definition())
    return path


def _update_device(dev, props):
    props = dict(props)
    if 'Name' in props and not dev.alias_set and 'Alias' not in props:
        props['Alias'] = dbus.String(str(props['Name']))
    _store(dev, DEVICE_IFACE, props)


# ---------------------------------------------------------------- GATT

class GattCharDef:
    '''One characteristic of a simulated GATT database.'''

    def __init__(self, uuid, flags, on_write=None):
        self.uuid, self.flags, self.on_write = uuid, list(flags), on_write
        self.path = None

    @property
    def obj(self):
        return mockobject.objects.get(self.path) if self.path else None


class GattServiceDef:
    '''One service: its UUID and characteristics; exported while the device's services are resolved.'''

    def __init__(self, uuid, chars):
        self.uuid, self.chars = uuid, chars
        self.path = None


def _export_gatt(dev):
    handle = 0x000a
    for service in dev.gatt:
        service.path = f'{dev.path}/service{handle:04x}'
        handle += 1
        if service.path not in mockobject.objects:
            _export(service.path, SERVICE_IFACE, {
                'UUID': dbus.String(service.uuid),
                'Device': dbus.ObjectPath(dev.path),
                'Primary': dbus.Boolean(True),
                'Includes': dbus.Array([], signature='o'),
            })
        for char in service.chars:
            char.path = f'{service.path}/char{handle:04x}'
            handle += 2
            if char.path in mockobject.objects:
                continue
            obj = _export(char.path, CHAR_IFACE, {
                'UUID': dbus.String(char.uuid),
                'Service': dbus.ObjectPath(service.path),
                'Value': dbus.Array([], signature='y'),
                'Notifying': dbus.Boolean(False),
                'Flags': dbus.Array(char.flags, signature='s'),
                'MTU': dbus.UInt16(247),
            }, CHAR_METHODS)
            obj.definition, obj.device = char, dev
            if 'notify' in char.flags:
                _export(f'{char.path}/desc{handle:04x}', DESC_IFACE, {
                    'UUID': dbus.String(CCC_UUID),
                    'Characteristic': dbus.ObjectPath(char.path),
                    'Value': dbus.Array([], signature='y'),
                    'Flags': dbus.Array(['read', 'write'], signature='s'),
                })
                handle += 1


def _notify(char, payload):
    '''Sends a value notification, as BlueZ does: only while the characteristic is notifying.'''
    obj = char.obj
    if obj is None:
        return False
    if not obj.props[CHAR_IFACE]['Notifying']:
        obj.log(f'notification dropped (not notifying): {payload!r}')
        return False
    # every notification is a signal, even when it repeats the last value
    obj.props[CHAR_IFACE]['Value'] = _bytes(payload)
    _emit_changed(obj, CHAR_IFACE, {'Value': _bytes(payload)})
    return True


def _write_value(obj, _sender, value, _options):
    if not obj.device.props[DEVICE_IFACE]['Connected']:
        raise _err('org.bluez.Error.Failed', 'Not connected')
    flags = obj.props[CHAR_IFACE]['Flags']
    if 'write' not in flags and 'write-without-response' not in flags:
        raise _err('org.bluez.Error.NotPermitted', 'Write not permitted')
    data = bytes(int(b) for b in value)
    if obj.definition.on_write is not None:
        obj.definition.on_write(data)
    else:
        obj.props[CHAR_IFACE]['Value'] = _bytes(data)


def _read_value(obj, _sender, options):
    if 'read' not in obj.props[CHAR_IFACE]['Flags']:
        raise _err('org.bluez.Error.NotPermitted', 'Read not permitted')
    value = bytes(int(b) for b in obj.props[CHAR_IFACE]['Value'])
    offset = int(options.get('offset', 0))
    if offset > len(value):
        raise _err('org.bluez.Error.InvalidOffset', 'Invalid offset')
    return _bytes(value[offset:])


def _start_notify(obj, _sender):
    flags = obj.props[CHAR_IFACE]['Flags']
    if 'notify' not in flags and 'indicate' not in flags:
        raise _err('org.bluez.Error.NotSupported', 'Operation is not supported')
    _store(obj, CHAR_IFACE, {'Notifying': dbus.Boolean(True)})


def _stop_notify(obj, _sender):
    _store(obj, CHAR_IFACE, {'Notifying': dbus.Boolean(False)})


CHAR_METHODS = [
    _method(CHAR_IFACE, 'WriteValue', 'aya{sv}', '', _write_value),
    _method(CHAR_IFACE, 'ReadValue', 'a{sv}', 'ay', _read_value),
    _method(CHAR_IFACE, 'StartNotify', '', '', _start_notify),
    _method(CHAR_IFACE, 'StopNotify', '', '', _stop_notify),
]


# ---------------------------------------------------------------- the remote camera

def _camera_defaults():
    return {k[len('camera_'):]: v for k, v in _params.items() if k.startswith('camera_')}


class RemoteCamera:
    '''A remote camera's BLE side: ASCII commands written to "fdea0001-…", answers notified on
    "fdea0002-…".

    State: `power` ('Z' on, 'U' off, 'Y' standby), `wifi` ('G' unavailable, 'B' booting, 'R' ready,
    'C' connected), `band` ("2.4"/"5.0"), `version` (BLE protocol version). Commands:
      RV  -> "V<version, 2 digits>"     RP  -> "P<power>"     RF  -> "F<band><wifi>"
      WP<letter>        -> change_power(letter), answered like RP
      WF<d.d>G          -> change_band(text), answered like RF
    every answer ending in "\\r". change_power/change_band apply at once; a state machine (power 'U'
    -> 'Z', Wi-Fi 'G' -> 'B' -> 'R' over seconds) belongs there, using schedule() and notify_state().
    '''

    def __init__(self, device, defaults=None):
        defaults = defaults or {}
        self.device = device
        self.power = str(defaults.get('power', 'Z'))
        self.wifi = str(defaults.get('wifi', 'R'))
        self.band = str(defaults.get('band', '5.0'))
        self.version = int(defaults.get('version', 12))
        self.answer_delay_ms = int(defaults.get('answer_delay_ms', 5))
        self.fixed_answers = {}     # command -> answer text ('' = silence)
        self.writes = []            # every value written, in order
        self.rx = b''               # bytes of a command not yet terminated by '\r'
        self.write_char = GattCharDef(CAMERA_WRITE_UUID, ['write', 'write-without-response'], self.on_write)
        self.notify_char = GattCharDef(CAMERA_NOTIFY_UUID, ['read', 'notify'])

    def service_definition(self):
        return GattServiceDef(CAMERA_SERVICE_UUID, [self.write_char, self.notify_char])

    # -- state
    def set_state(self, state):
        for key in ('power', 'wifi', 'band'):
            if key in state:
                setattr(self, key, str(state[key]))
        if 'version' in state:
            self.version = int(state['version'])

    def get_state(self):
        return {'power': dbus.String(self.power), 'wifi': dbus.String(self.wifi),
                'band': dbus.String(self.band), 'version': dbus.Byte(self.version)}

    def change_power(self, letter):
        self.power = letter

    def change_band(self, band):
        self.band = band

    # -- answers
    def power_answer(self):
        return f'P{self.power}\r'

    def wifi_answer(self):
        return f'F{self.band}{self.wifi}\r'

    def version_answer(self):
        return f'V{self.version:02d}\r'

    def answer(self, command):
        '''The text to notify for one command (with its '\\r'), or None for silence.'''
        if command in self.fixed_answers:
            return self.fixed_answers[command] or None
        if command == 'RV\r':
            return self.version_answer()
        if command == 'RP\r':
            return self.power_answer()
        if command == 'RF\r':
            return self.wifi_answer()
        if len(command) == 4 and command.startswith('WP'):
            self.change_power(command[2])
            return self.power_answer()
        if len(command) == 7 and command.startswith('WF') and command[5] == 'G':
            self.change_band(command[2:5])
            return self.wifi_answer()
        return None

    def on_write(self, data):
        self.writes.append(data)
        self.rx += data
        while b'\r' in self.rx:
            line, self.rx = self.rx.split(b'\r', 1)
            text = self.answer(line.decode('latin-1') + '\r')
            if text is not None:
                # after the WriteValue reply, as a real peripheral's notification arrives
                self.schedule(self.answer_delay_ms, self.notify, text)

    # -- plumbing for answers and future state machines
    def schedule(self, delay_ms, fn, *args):
        _later(delay_ms, fn, *args)

    def notify(self, payload):
        return _notify(self.notify_char, payload)

    def notify_state(self):
        self.notify(self.power_answer())
        self.notify(self.wifi_answer())

    def link_dropped(self):
        self.rx = b''


class KelpCamera(kelp_camera.KelpBehaviour, RemoteCamera):
    '''A RemoteCamera that takes its time and can fail, as sim/kelp_camera.py describes.'''

    def drop_link(self):
        _drop_link(self.device)


def _camera(path):
    dev = _device(path)
    if dev.camera is None:
        raise _err('org.bluez.Mock.Error', f'{path} is not a camera')
    return dev.camera


# ---------------------------------------------------------------- control API (org.bluez.Mock on "/")

@dbus.service.method(MOCK_IFACE, in_signature='ss', out_signature='o')
def AddAdapter(self, device_name, system_name):  # pylint: disable=unused-argument
    return _add_adapter(str(device_name), str(system_name))


@dbus.service.method(MOCK_IFACE, in_signature='s', out_signature='')
def RemoveAdapter(self, device_name):  # pylint: disable=unused-argument
    path = '/org/bluez/' + str(device_name)
    if path not in mockobject.objects:
        raise _err('org.bluez.Mock.Error', f'{path} does not exist')
    _unexport(path)


@dbus.service.method(MOCK_IFACE, in_signature='sssu', out_signature='')
def SetSwitchBehaviour(self, adapter, prop, mode, delay_ms):  # pylint: disable=unused-argument
    obj = mockobject.objects.get('/org/bluez/' + str(adapter))
    if obj is None:
        raise _err('org.bluez.Mock.Error', f'no adapter {adapter}')
    if str(prop) not in SWITCHES or str(mode) not in ('apply', 'ignore', 'delay'):
        raise _err('org.bluez.Mock.Error', f'bad switch behaviour {prop} {mode}')
    obj.switch_modes[str(prop)] = (str(mode), int(delay_ms))


@dbus.service.method(MOCK_IFACE, in_signature='ssa{sv}', out_signature='o')
def AddLEDevice(self, adapter, address, props):  # pylint: disable=unused-argument
    adapter_path = '/org/bluez/' + str(adapter)
    aobj = mockobject.objects.get(adapter_path)
    if aobj is None:
        raise _err('org.bluez.Mock.Error', f'no adapter {adapter}')
    props = dict(props)
    if props.get('X-OnlyOnDiscovery'):
        aobj.waiting.append((str(address), props))
        if aobj.discovery_clients:
            _later(_params.get('discovery_delay_ms', 20), _announce_waiting, adapter_path)
        return _device_path(adapter_path, address)
    return _add_device(adapter_path, str(address), props)


@dbus.service.method(MOCK_IFACE, in_signature='sua{sv}', out_signature='ao')
def AddLEDevices(self, adapter, count, props):
    paths = []
    name = props.get('Name')
    for _ in range(int(count)):
        n = _state['bulk_next']
        _state['bulk_next'] += 1
        address = f'10:00:00:{(n >> 16) & 0xff:02X}:{(n >> 8) & 0xff:02X}:{n & 0xff:02X}'
        one = dict(props)
        if name is not None:
            one['Name'] = dbus.String(f'{name}-{n}')
        paths.append(dbus.ObjectPath(AddLEDevice(self, adapter, address, one)))
    return dbus.Array(paths, signature='o')


@dbus.service.method(MOCK_IFACE, in_signature='oa{sv}', out_signature='')
def UpdateDevice(self, device, props):  # pylint: disable=unused-argument
    _update_device(_device(device), _split(props)[0])


@dbus.service.method(MOCK_IFACE, in_signature='o', out_signature='')
def RemoveLEDevice(self, device):  # pylint: disable=unused-argument
    dev = _device(device)
    _drop_link(dev)
    _unexport(dev.path)


@dbus.service.method(MOCK_IFACE, in_signature='o', out_signature='')
def SimulateDisconnect(self, device):  # pylint: disable=unused-argument
    _drop_link(_device(device))


@dbus.service.method(MOCK_IFACE, in_signature='osas', out_signature='o')
def AddGattService(self, device, uuid, char_uuids):  # pylint: disable=unused-argument
    dev = _device(device)
    service = GattServiceDef(str(uuid), [GattCharDef(str(u), ['read', 'write']) for u in char_uuids])
    dev.gatt.append(service)
    if dev.props[DEVICE_IFACE]['ServicesResolved']:
        _export_gatt(dev)
    else:
        # its path as it will be once exported
        _export_gatt_paths_only(dev)
    return dbus.ObjectPath(service.path)


def _export_gatt_paths_only(dev):
    handle = 0x000a
    for service in dev.gatt:
        service.path = f'{dev.path}/service{handle:04x}'
        handle += 1
        for char in service.chars:
            char.path = f'{service.path}/char{handle:04x}'
            handle += 3 if 'notify' in char.flags else 2


@dbus.service.method(MOCK_IFACE, in_signature='oa{sv}', out_signature='')
def SetCameraState(self, device, state):  # pylint: disable=unused-argument
    _camera(device).set_state(dict(state))


@dbus.service.method(MOCK_IFACE, in_signature='o', out_signature='a{sv}')
def GetCameraState(self, device):  # pylint: disable=unused-argument
    return dbus.Dictionary(_camera(device).get_state(), signature='sv')


@dbus.service.method(MOCK_IFACE, in_signature='oss', out_signature='')
def SetCameraResponse(self, device, command, response):  # pylint: disable=unused-argument
    _camera(device).fixed_answers[str(command)] = str(response)


@dbus.service.method(MOCK_IFACE, in_signature='oay', out_signature='')
def CameraNotify(self, device, value):  # pylint: disable=unused-argument
    _camera(device).notify(bytes(int(b) for b in value))


@dbus.service.method(MOCK_IFACE, in_signature='o', out_signature='aay')
def GetCameraWrites(self, device):  # pylint: disable=unused-argument
    return dbus.Array([_bytes(w) for w in _camera(device).writes], signature='ay')


@dbus.service.method(MOCK_IFACE, in_signature='osa{sv}', out_signature='')
def SetMethodBehaviour(self, path, method, behaviour):  # pylint: disable=unused-argument
    obj = mockobject.objects.get(str(path))
    if obj is None:
        raise _err('org.bluez.Mock.Error', f'no object {path}')
    if not hasattr(obj, 'behaviour'):
        obj.behaviour = {}
    if behaviour:
        obj.behaviour[str(method)] = {str(k): v for k, v in behaviour.items()}
    else:
        obj.behaviour.pop(str(method), None)


def load(mock, parameters):
    _params.clear()
    _params.update(parameters or {})
    _params['__main__'] = mock
    mock.AddObject('/org/bluez', 'org.bluez.AgentManager1', {}, [
        ('RegisterAgent', 'os', '', ''),
        ('UnregisterAgent', 'o', '', ''),
        ('RequestDefaultAgent', 'o', '', ''),
    ])
    mockobject.objects['/org/bluez'].AddMethods('org.bluez.ProfileManager1', [
        ('RegisterProfile', 'osa{sv}', '', ''),
        ('UnregisterProfile', 'o', '', ''),
    ])
    mock.bus_name.get_bus().add_signal_receiver(
        _client_left, signal_name='NameOwnerChanged', dbus_interface='org.freedesktop.DBus',
        bus_name='org.freedesktop.DBus', path='/org/freedesktop/DBus')
    if _params.get('adapter'):
        _add_adapter(str(_params['adapter']), str(_params.get('alias', 'testhost')))
