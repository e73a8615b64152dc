# -*- coding: utf-8 -*-
'''Simulated systemd manager on the system bus: just what the HCI watchdog uses.

Manager.LoadUnit(s) -> o and Unit.Restart(s) -> o (also GetUnit, Start/Stop/RestartUnit, Unit.Start/Stop),
with JobNew/JobRemoved signals. Test side, on the manager object (interface org.freedesktop.DBus.Mock):
    GetRestarts() -> as          units restarted so far, in order
Parameters (-p JSON):
    {"on_restart_mkdir": {"bluetooth.service": "/path/sys_bluetooth/hci0"}}
        a restart of that unit creates the folder: the restarted stack "brings hci0 back".
    {"refuse": ["variscite-bt.service"]}
        LoadUnit of these units fails with org.freedesktop.systemd1.NoSuchUnit.
'''
import os

import dbus
from gi.repository import GLib
from dbusmock import MOCK_IFACE, mockobject

BUS_NAME = 'org.freedesktop.systemd1'
MAIN_OBJ = '/org/freedesktop/systemd1'
MAIN_IFACE = 'org.freedesktop.systemd1.Manager'
UNIT_IFACE = 'org.freedesktop.systemd1.Unit'
SYSTEM_BUS = True

_state = {'job': 0, 'restarts': [], 'manager': None, 'params': {}}


def _escape(name):
    # systemd's bus path escaping: every byte outside [A-Za-z0-9] becomes _xx
    return ''.join(c if c.isalnum() else f'_{ord(c):02x}' for c in name)


def _unit_path(name):
    if name in _state['params'].get('refuse', []):
        raise dbus.exceptions.DBusException(f'Unit {name} not found.',
                                            name='org.freedesktop.systemd1.NoSuchUnit')
    path = f'{MAIN_OBJ}/unit/{_escape(name)}'
    if path not in mockobject.objects:
        _state['manager'].AddObject(path, UNIT_IFACE, {
            'Id': dbus.String(name, variant_level=1),
            'LoadState': dbus.String('loaded', variant_level=1),
            'ActiveState': dbus.String('active', variant_level=1),
            'SubState': dbus.String('running', variant_level=1),
        }, [(verb, 's', 'o', _unit_verb(verb)) for verb in ('Start', 'Stop', 'Restart')])
        mockobject.objects[path].unit_name = name
    return path


def _job(unit, verb):
    _state['job'] += 1
    job_id = _state['job']
    job_path = f'{MAIN_OBJ}/job/{job_id}'
    manager = _state['manager']
    if verb == 'Restart':
        _state['restarts'].append(unit)
        target = _state['params'].get('on_restart_mkdir', {}).get(unit)
        if target:
            os.makedirs(target, exist_ok=True)
    unit_obj = mockobject.objects[_unit_path(unit)]

    def finish():
        manager.EmitSignal(MAIN_IFACE, 'JobNew', 'uos', [job_id, dbus.ObjectPath(job_path), unit])
        unit_obj.UpdateProperties(UNIT_IFACE, {'ActiveState': dbus.String(
            'inactive' if verb == 'Stop' else 'active')})
        manager.EmitSignal(MAIN_IFACE, 'JobRemoved', 'uoss', [job_id, dbus.ObjectPath(job_path), unit, 'done'])
        return False
    GLib.idle_add(finish)
    return dbus.ObjectPath(job_path)


def _unit_verb(verb):
    return lambda self, mode: _job(self.unit_name, verb)


@dbus.service.method(MAIN_IFACE, in_signature='s', out_signature='o')
def LoadUnit(self, name):
    return dbus.ObjectPath(_unit_path(str(name)))


@dbus.service.method(MAIN_IFACE, in_signature='s', out_signature='o')
def GetUnit(self, name):
    return dbus.ObjectPath(_unit_path(str(name)))


@dbus.service.method(MAIN_IFACE, in_signature='ss', out_signature='o')
def RestartUnit(self, name, mode):
    return _job(str(name), 'Restart')


@dbus.service.method(MAIN_IFACE, in_signature='ss', out_signature='o')
def StartUnit(self, name, mode):
    return _job(str(name), 'Start')


@dbus.service.method(MAIN_IFACE, in_signature='ss', out_signature='o')
def StopUnit(self, name, mode):
    return _job(str(name), 'Stop')


@dbus.service.method(MOCK_IFACE, in_signature='', out_signature='as')
def GetRestarts(self):
    return dbus.Array(_state['restarts'], signature='s')


def load(mock, parameters):
    _state['manager'] = mock
    _state['params'] = parameters or {}
    mock.AddProperties(MAIN_IFACE, {'Version': dbus.String('252', variant_level=1)})
