# -*- coding: utf-8 -*-
'''Simulated settings daemon, com.quorbel.common.Settings1 on the user bus.

One object per settings section, /com/quorbel/common/Settings1/<section>, interface
com.quorbel.common.Settings1, every setting a typed property. On /com/quorbel/common/Settings1:
ResetToDefaults(b), ResetSection(s), ResetSetting(ss); each reset stores the defaults and emits
PropertiesChanged on the section objects it changed.

Test or person side (interface org.freedesktop.DBus.Mock, on a section object):
    SetProp(s name, v value)       store, coerced to the declared type, and emit PropertiesChanged
    EmitSignalDetailed(...)        dbusmock's own; with details {'path': ...} a signal from any path, e.g.
                                   a PropertiesChanged from '/' or from a section the unit does not have
Parameters (-p JSON): initial values of the "bluetooth" section, e.g. {"powered": false, "advertSchema": 4}.
'''
import os
import sys

import dbus
from dbusmock import MOCK_IFACE

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import typed_props  # noqa: E402

BUS_NAME = 'com.quorbel.common.Settings1'
MAIN_OBJ = '/com/quorbel/common/Settings1'
MAIN_IFACE = 'com.quorbel.common.Settings1'
SYSTEM_BUS = False

# section -> {key: (signature, default)}; the simulated unit's stored settings, deliberately not all equal
# to the daemon's safe defaults so that a test can tell a read value from a fallback
SECTIONS = {
    'bluetooth': {
        'advertSchema': ('u', 4),
        'autoScanRateSecs': ('u', 30),
        'advertisingEnabled': ('b', True),
        'autoScanEnabled': ('b', True),
        'discoverable': ('b', True),
        'pairable': ('b', True),
        'powered': ('b', True),
        'systemCallDebug': ('b', False),
    },
    'display': {
        'brightness': ('u', 80),
    },
    'network': {
        'hostname': ('s', 'unit-sim'),
    },
    'power': {
        'autoOffMins': ('u', 30),
    },
    'system': {
        'language': ('s', 'en'),
    },
}

_sections = {}


def _reset(section, keys=None):
    obj = _sections[section]
    changed = {}
    for key, (sig, default) in SECTIONS[section].items():
        if keys is None or key in keys:
            value = typed_props.typed(sig, default)
            obj.props[MAIN_IFACE][key] = value
            changed[key] = value
    if changed:
        typed_props.emit_changed(obj, MAIN_IFACE, changed)


@dbus.service.method(MAIN_IFACE, in_signature='b', out_signature='')
def ResetToDefaults(self, everything):
    for section in SECTIONS:
        _reset(section)


@dbus.service.method(MAIN_IFACE, in_signature='s', out_signature='')
def ResetSection(self, section):
    if str(section) not in SECTIONS:
        raise dbus.exceptions.DBusException(f'No section {section}',
                                            name='com.quorbel.common.Settings1.Error.NoSuchSection')
    _reset(str(section))


@dbus.service.method(MAIN_IFACE, in_signature='ss', out_signature='')
def ResetSetting(self, section, key):
    if str(section) not in SECTIONS or str(key) not in SECTIONS[str(section)]:
        raise dbus.exceptions.DBusException(f'No setting {section}/{key}',
                                            name='com.quorbel.common.Settings1.Error.NoSuchSetting')
    _reset(str(section), {str(key)})


@dbus.service.method(MOCK_IFACE, in_signature='sv', out_signature='')
def SetProp(self, name, value):
    typed_props.set_prop(self, name, value)


def load(mock, parameters):
    parameters = parameters or {}
    for section, declared in SECTIONS.items():
        overrides = parameters if section == 'bluetooth' else {}
        _sections[section] = typed_props.add_typed_object(mock, f'{MAIN_OBJ}/{section}', MAIN_IFACE, declared,
                                                          overrides)
