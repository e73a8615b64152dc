# -*- coding: utf-8 -*-
'''Simulated power daemon, com.quorbel.common.Pylon1 on the user bus.

Objects /com/quorbel/common/Pylon1 (interface com.quorbel.common.Pylon1.Control, also the object manager),
.../power and .../remotepower (com.quorbel.common.Pylon1.power), .../cooling (com.quorbel.common.Pylon1.cooling)
and .../reel, .../reel/firmware, .../reel/distance (com.quorbel.common.Pylon1.reel).
Methods: power objects GetBatteryInfo(u) -> s, RequestBatteryData(), GetPowerSufficientForAction(u) -> b,
GetBatteryUpdateState() -> u, GetBatteryUpdateDirection() -> u; Control SetPowerState(ii),
GetPowerStates() -> bbbbbb, SetLedState(uu), BeepBuzzer(uuu), SetRemote(ss) (stores RemoteIP and
RemoteDBusAddress), SetLocal() (clears them), GetVideoStatus() -> u, GetPylonSwVersion() -> s,
GetPylonHwVersion() -> s, GetKeypadPicVersion() -> s. Signals on Control: VideoStatusChanged(u),
KeyPressEvent(iii).
Test or person side, on any object: org.freedesktop.DBus.Mock.SetProp(s name, v value) stores the value
coerced to its declared type and emits PropertiesChanged, e.g. the battery running low:
    SetProp ActivePowerSource 1; SetProp BatteryChargePercentages [12, 10]
dbusmock's EmitSignal raises the Control signals and the object manager's InterfacesAdded/Removed.
Parameters (-p JSON): initial values of the local power object's properties.
'''
import os
import sys

import dbus
from dbusmock import MOCK_IFACE

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import typed_props  # noqa: E402

BUS_NAME = 'com.quorbel.common.Pylon1'
MAIN_OBJ = '/com/quorbel/common/Pylon1'
MAIN_IFACE = 'com.quorbel.common.Pylon1.Control'
POWER_IFACE = 'com.quorbel.common.Pylon1.power'
COOLING_IFACE = 'com.quorbel.common.Pylon1.cooling'
SYSTEM_BUS = False
IS_OBJECT_MANAGER = True

POWER = {
    'ActivePowerSource': ('i', 1),
    'BatteryVoltages': ('ai', [16900, 17600]),
    'BatteryChargePercentages': ('ai', [87, 85]),
    'BatteryTypes': ('au', [1, 1]),
    'SystemPowerLevel': ('u', 3),
    'BatteryDrainMode': ('u', 0),
    'LowBatteryWarnings': ('b', False),
    'PermittedActions': ('u', 0xFFFF),
    'BatteryLevelIcons': ('(sassas)', ['battery-good', ['battery-good', 'battery-full'], 'battery-none',
                                        ['battery-none']]),
}
CONTROL = {
    'RemoteIP': ('s', ''),
    'RemoteDBusAddress': ('s', ''),
    'VideoStatus': ('u', 0),
}
COOLING = {
    'CpuTemp': ('i', 48),
    'FanSpeed': ('u', 1800),
    'FanCtrlMode': ('u', 0),
    'ManualFanSpeed': ('u', 50),
    'FanCtrlRangeMinTemp': ('i', 40),
    'FanCtrlRangeMaxTemp': ('i', 80),
    'CpuTempAvgPeriod': ('u', 10),
    'EmitStatusChanges': ('b', True),
}
REEL_IFACE = 'com.quorbel.common.Pylon1.reel'
REEL = {
    'Connected': ('b', True),
    'ReelType': ('u', 2),
}
REEL_FIRMWARE = {
    'Version': ('s', '3.1.4'),
}
REEL_DISTANCE = {
    'DistanceMm': ('i', 12500),
}


def _battery_info(self, battery):
    props = self.props[POWER_IFACE]
    return 'battery %d: type %d, %d%%' % (battery, props['BatteryTypes'][battery],
                                          props['BatteryChargePercentages'][battery])


def _set_remote(self, ip, address):
    self.props[MAIN_IFACE]['RemoteIP'] = dbus.String(ip, variant_level=1)
    self.props[MAIN_IFACE]['RemoteDBusAddress'] = dbus.String(address, variant_level=1)


# (name, in, out, code): dbusmock calls code(self, *args) and replies with what it returns
POWER_METHODS = [
    ('GetBatteryInfo', 'u', 's', _battery_info),
    ('RequestBatteryData', '', '', lambda self: None),
    ('GetPowerSufficientForAction', 'u', 'b',
     lambda self, action: (self.props[POWER_IFACE]['PermittedActions'] & (1 << action)) != 0),
    ('GetBatteryUpdateState', '', 'u', lambda self: 0),
    ('GetBatteryUpdateDirection', '', 'u', lambda self: 1),
]
CONTROL_METHODS = [
    ('SetPowerState', 'ii', '', lambda self, state, delay: None),
    ('GetPowerStates', '', 'bbbbbb', lambda self: (True, True, False, True, False, False)),
    ('SetLedState', 'uu', '', lambda self, led, state: None),
    ('BeepBuzzer', 'uuu', '', lambda self, count, on, off: None),
    ('SetRemote', 'ss', '', _set_remote),
    ('SetLocal', '', '', lambda self: _set_remote(self, '', '')),
    ('GetVideoStatus', '', 'u', lambda self: self.props[MAIN_IFACE]['VideoStatus']),
    ('GetPylonSwVersion', '', 's', lambda self: '2.7.0-sim'),
    ('GetPylonHwVersion', '', 's', lambda self: 'C'),
    ('GetKeypadPicVersion', '', 's', lambda self: '1.12'),
]


@dbus.service.method(MOCK_IFACE, in_signature='sv', out_signature='')
def SetProp(self, name, value):
    typed_props.set_prop(self, name, value)


def load(mock, parameters):
    typed_props.add_typed_object(mock, MAIN_OBJ, MAIN_IFACE, CONTROL, {})
    mock.AddMethods(MAIN_IFACE, CONTROL_METHODS)
    for path, overrides in (('/power', parameters or {}), ('/remotepower', {})):
        obj = typed_props.add_typed_object(mock, MAIN_OBJ + path, POWER_IFACE, POWER, overrides)
        obj.AddMethods(POWER_IFACE, POWER_METHODS)
    typed_props.add_typed_object(mock, MAIN_OBJ + '/cooling', COOLING_IFACE, COOLING, {})
    typed_props.add_typed_object(mock, MAIN_OBJ + '/reel', REEL_IFACE, REEL, {})
    typed_props.add_typed_object(mock, MAIN_OBJ + '/reel/firmware', REEL_IFACE, REEL_FIRMWARE, {})
    typed_props.add_typed_object(mock, MAIN_OBJ + '/reel/distance', REEL_IFACE, REEL_DISTANCE, {})
