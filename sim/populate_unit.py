#!/usr/bin/python3
'''Puts devices near the simulated unit: what its auto-scan finds.

Run with the unit's buses in the environment (scripts/simulate does it): other units advertising V3 and V4
payloads under the company identifier 0x05F3, two remote cameras advertising V3 payloads (one of them
switched off, on the 2.4 GHz band, and slow to bring its access point up, as a real one is), a phone, and
a headset that only shows up while discovery runs.
'''
import os
import sys

import dbus

COMPANY = 0x05F3


def payload(device_type, version, battery, ip, text):
    '''Manufacturer data as another unit sends it (without the company identifier).'''
    body = [device_type & 0xFF, device_type >> 8, version, battery]
    body += [(ip >> shift) & 0xFF for shift in (24, 16, 8, 0)]
    return body + list(text.encode())


def manufacturer(body):
    return dbus.Dictionary({dbus.UInt16(COMPANY): dbus.Array([dbus.Byte(b) for b in body], signature='y')},
                           signature='qv')


DEVICES = [
    ('C0:FF:EE:00:00:03', {'Name': dbus.String('Cobalt-1042'), 'RSSI': dbus.Int16(-48),
                           'ManufacturerData': manufacturer(payload(3, 3, 4, 2307, 'SiteNet'))}),
    ('C0:FF:EE:00:00:04', {'Name': dbus.String('Harbor-2210'), 'RSSI': dbus.Int16(-61),
                           'ManufacturerData': manufacturer(payload(9, 4, 2, 7690, 'H2210'))}),
    ('C0:FF:EE:00:00:07', {'Name': dbus.String('KelpCam-0007'), 'RSSI': dbus.Int16(-55),
                           'ManufacturerData': manufacturer(payload(7, 3, 3, 0, 'K0007')),
                           'X-Camera': dbus.Boolean(True)}),
    ('C0:FF:EE:00:00:08', {'Name': dbus.String('KelpCam-0008'), 'RSSI': dbus.Int16(-70),
                           'ManufacturerData': manufacturer(payload(7, 3, 1, 0, 'K0008')),
                           'X-Camera': dbus.Boolean(True),
                           'X-CameraState': dbus.Dictionary({'power': 'U', 'wifi': 'G', 'band': '2.4'},
                                                            signature='sv'),
                           'X-Camera-Profile': dbus.Dictionary({'power_on_ms': dbus.UInt32(500),
                                                                'wifi_settle': 'R',
                                                                'wifi_unavailable_ms': dbus.UInt32(1000),
                                                                'wifi_boot_ms': dbus.UInt32(2000)},
                                                               signature='sv')}),
    ('5C:F3:70:11:22:33', {'Name': dbus.String('Pixel 8'), 'RSSI': dbus.Int16(-67),
                           'Class': dbus.UInt32(0x5A020C)}),
    ('00:1B:66:AA:BB:CC', {'Name': dbus.String('Headset'), 'RSSI': dbus.Int16(-80),
                           'X-OnlyOnDiscovery': dbus.Boolean(True)}),
]


def main():
    if 'DBUS_SYSTEM_BUS_ADDRESS' not in os.environ:
        sys.exit("populate_unit: no DBUS_SYSTEM_BUS_ADDRESS: run it with the unit's env.sh sourced")
    bus = dbus.bus.BusConnection(os.environ['DBUS_SYSTEM_BUS_ADDRESS'])
    try:
        mock = bus.get_object('org.bluez', '/')
        for address, props in DEVICES:
            mock.AddLEDevice('hci0', address, dbus.Dictionary(props, signature='sv'),
                             dbus_interface='org.bluez.Mock')
    finally:
        bus.close()
    print(f'populate_unit: {len(DEVICES)} devices near hci0', file=sys.stderr)


if __name__ == '__main__':
    main()
