# -*- coding: utf-8 -*-
'''Simulated network daemon, com.quorbel.Network1 on the user bus.

Object /com/quorbel/Network1, interface com.quorbel.Network1.WiFi, with typed properties and the methods
Scan(), Connect(ss), Disconnect(). Test or person side: org.freedesktop.DBus.Mock.SetProp(s name, v value)
stores the value coerced to its declared type and emits PropertiesChanged.
Parameters (-p JSON): initial property values, e.g. {"IPAddress": "10.0.0.5", "SSID": ""}.
'''
import os
import sys

import dbus
from dbusmock import MOCK_IFACE

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import typed_props  # noqa: E402

BUS_NAME = 'com.quorbel.Network1'
MAIN_OBJ = '/com/quorbel/Network1'
MAIN_IFACE = 'com.quorbel.Network1.WiFi'
SYSTEM_BUS = False

PROPERTIES = {
    'IPAddress': ('s', '192.168.1.20'),
    'SSID': ('s', 'unit-sim-ap'),
    'Mode': ('s', 'ap'),
    'WiFiFrequency': ('s', '5.0'),
    'WiFiAvailableFrequencies': ('as', ['2.4', '5.0']),
    'WiFiConnectedClients': ('u', 0),
    'MacAddress': ('s', '02:00:00:00:00:01'),
    'WiFiSignal': ('u', 0),
    'WiFiClientState': ('u', 0),
    'ClientSSID': ('s', ''),
    'WiFiState': ('u', 1),
    'WiFiAccessPointInitialised': ('b', True),
    'AccessPoints': ('a(siib)', [['unit-sim-ap', 6, -40, True], ['neighbour', 11, -71, False]]),
}


@dbus.service.method(MOCK_IFACE, in_signature='sv', out_signature='')
def SetProp(self, name, value):
    typed_props.set_prop(self, name, value)


def load(mock, parameters):
    typed_props.add_typed_object(mock, MAIN_OBJ, MAIN_IFACE, PROPERTIES, parameters or {})
    mock.AddMethods(MAIN_IFACE, [
        ('Scan', '', '', ''),
        ('Connect', 'ss', '', ''),
        ('Disconnect', '', '', ''),
    ])
