'''A unit in the simulated world with the daemon started in it, as the integration tests drive it: the
harness's TestEnv (private buses, the simulated BlueZ and sibling daemons, the HCI stubs), the daemon
binary, and client connections to both buses; Service adds a client of the daemon's own API.'''
import json

import dbus
import populate_unit

from harness.bus import ADVERT, NAME, PATH, PROPS, SCANNER, Bus, Error
from harness.daemon_process import DaemonProcess
from harness.peers import Bluez, set_prop
from harness.testenv import TestEnv
from harness.wait import wait_until

# devices near the unit (sim/populate_unit.py)
UNIT_3 = 'C0:FF:EE:00:00:03'    # another unit, a Cobalt (V3 payload)
UNIT_4 = 'C0:FF:EE:00:00:04'    # another unit with a V4 payload: its model is not decoded
CAMERA = 'C0:FF:EE:00:00:07'    # a camera, on and ready on 5.0
SLOW_CAMERA = 'C0:FF:EE:00:00:08'  # a camera, off, on 2.4, slow to bring its access point up
PHONE = '5C:F3:70:11:22:33'
NEARBY = [address for address, _ in populate_unit.DEVICES]


def nearby(address):
    '''The BlueZ properties of one of the devices near the unit.'''
    return next(props for a, props in populate_unit.DEVICES if a == address)


def documents(text):
    '''The daemon's JSON list of devices, by address.'''
    return {d['mac']: d for d in json.loads(text)}


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


def served(bus):
    '''The daemon owns its name on `bus` and answers a property read there.'''
    try:
        return bus.has_owner(NAME) and int(bus.get(NAME, PATH, ADVERT, 'AdvertSchema')) in (3, 4)
    except Error:
        return False


class Unit:
    '''A unit with the daemon started in it, and the buses to drive its peers.'''

    def __init__(self, case, settings=None, **env_args):
        params = env_args.pop('params', {})
        if settings:
            params = dict(params, settings=settings)
        self.env = TestEnv(sandbox=True, params=params, **env_args)
        self.case = case
        self.daemon = None

    def __enter__(self):
        self.env.__enter__()
        self.system = Bus(self.env.environ['DBUS_SYSTEM_BUS_ADDRESS'])
        self.user = Bus(self.env.environ['DBUS_SESSION_BUS_ADDRESS'])
        self.bluez = Bluez(self.system)
        return self

    def start(self, extra_env=None):
        self.daemon = DaemonProcess(self.env, extra_env=extra_env)
        self.case.assertIsNotNone(self.daemon.notify.wait_for('READY=1', timeout=20), self.daemon.texts())
        return self.daemon

    def __exit__(self, *exc):
        try:
            if self.daemon is not None:
                status = self.daemon.stop()
                self.case.assertEqual(status, 0, self.daemon.texts())
        finally:
            self.system.close()
            self.user.close()
            self.env.__exit__(*exc)

    def set_prop(self, service, path, name, value):
        '''A sibling daemon's property, changed and announced.'''
        set_prop(self.user, service, path, name, value)

    def name_holder(self):
        '''Another client of the user bus, holding the daemon's name until it is closed.'''
        holder = Bus(self.env.environ['DBUS_SESSION_BUS_ADDRESS'])
        try:
            self.case.assertEqual(holder.request_name(NAME), dbus.bus.REQUEST_NAME_REPLY_PRIMARY_OWNER)
        except BaseException:
            holder.close()
            raise
        return holder

    def add_nearby(self, *addresses):
        for address in addresses:
            self.bluez.add_device(address, nearby(address))

    def adapter_calls(self, method):
        return self.bluez.adapter_calls(method)

    def powered_sets(self):
        '''The values the daemon gave the adapter's Powered, in order.'''
        return self.bluez.powered_sets()

    def alive(self):
        return self.daemon.proc.poll() is None

    # ------------------------------------------------------------------ the daemon's API
    def get(self, iface, name, **kw):
        return self.user.get(NAME, PATH, iface, name, **kw)

    def set(self, iface, name, value):
        self.user.set(NAME, PATH, iface, name, value)

    def call(self, iface, method, *args, **kw):
        return self.user.call(NAME, PATH, iface, method, *args, **kw)

    def still_serving(self):
        '''The daemon owns its name and answers.'''
        return served(self.user)


class Service(Unit):
    '''The unit, its daemon, and a client of the daemon's API that records the daemon's signals.'''

    def __init__(self, case, devices=(), **kw):
        super().__init__(case, **kw)
        self.devices = devices

    def __enter__(self):
        super().__enter__()
        self.add_nearby(*self.devices)
        return self

    def start(self, served=True, extra_env=None):
        daemon = super().start(extra_env=extra_env)
        if served:
            self.case.assertTrue(wait_until(lambda: self.user.has_owner(NAME), 5), daemon.texts())
            for member in ('ConfiguredKelpBle', 'DiscoveredRemoteCamera', 'NewKelpBleData'):
                self.user.subscribe(NAME, PATH, member)
            self.user.subscribe(NAME, PATH, 'PropertiesChanged', iface=PROPS)
        return daemon

    def received(self, member):
        return self.user.received(member)

    def scan(self, timeout=30):
        return self.call(SCANNER, 'Scan', timeout=timeout)

    def camera_writes(self, address):
        return self.bluez.camera_writes(address)

    def device_calls(self, address, method):
        return self.bluez.device_calls(address, method)

