'''A unit in the simulated world with the daemon started in it, as the integration tests drive it: the
harness's TestEnv (private buses, the simulated BlueZ and sibling daemons, the HCI stubs), the daemon
binary, and client connections to both buses.'''
import time

import dbus

from testenv import TestEnv
from daemon_process import DaemonProcess

MOCK = 'org.freedesktop.DBus.Mock'
ADAPTER = '/org/bluez/hci0'


def scan_responses(env):
    '''The manufacturer payloads of every scan-response command sent, oldest first, as octet lists
    starting after the company identifier: [type lo, type hi, version, battery, ip x4, text...].'''
    found = []
    for call in env.hci_calls():
        words = call.split()
        if words[:6] != ['hcitool', '-i', 'hci0', 'cmd', '08', '0009']:
            continue
        octets = [int(w, 16) for w in words[6:]]
        start = octets.index(0xFF) + 3  # length, AD length, 0xff, then f3 05
        assert octets[start - 2:start] == [0xF3, 0x05], call
        found.append(octets[start:])
    return found


def ip_value(octets):
    return int.from_bytes(bytes(octets[4:8]), 'big')


def wait_until(condition, timeout, step=0.05):
    end = time.monotonic() + timeout
    while time.monotonic() < end:
        if condition():
            return True
        time.sleep(step)
    return condition()


class Unit:
    '''A unit with the daemon started in it, and the buses to drive its peers.'''

    def __init__(self, case, settings=None, **env_args):
        params = env_args.pop('params', {})
        if settings:
            params = dict(params, settings=settings)
        self.env = TestEnv(sandbox=True, params=params, **env_args)
        self.case = case

    def __enter__(self):
        self.env.__enter__()
        self.system = dbus.bus.BusConnection(self.env.environ['DBUS_SYSTEM_BUS_ADDRESS'])
        self.user = dbus.bus.BusConnection(self.env.environ['DBUS_SESSION_BUS_ADDRESS'])
        return self

    def start(self, extra_env=None):
        self.daemon = DaemonProcess(self.env, extra_env=extra_env)
        self.case.assertIsNotNone(self.daemon.notify.wait_for('READY=1', timeout=20), self.daemon.texts())
        return self.daemon

    def __exit__(self, *exc):
        try:
            if getattr(self, 'daemon', None) is not None:
                status = self.daemon.stop()
                self.case.assertEqual(status, 0, self.daemon.texts())
        finally:
            self.system.close()
            self.user.close()
            self.env.__exit__(*exc)

    def set_prop(self, service, path, name, value):
        self.user.get_object(service, path).SetProp(name, value, dbus_interface=MOCK)

    def adapter_calls(self, method):
        return [c for c in self.system.get_object('org.bluez', ADAPTER).GetMethodCalls(method, dbus_interface=MOCK)]

    def powered_sets(self):
        '''The values the daemon gave the adapter's Powered, in order.'''
        sets = self.adapter_calls('Set')
        return [bool(args[2]) for _, args in sets if str(args[1]) == 'Powered']
