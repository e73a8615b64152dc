'''The tests' one D-Bus client: a connection to a bus by address, and what the tests do with it: method
calls (through a proxy or as raw messages of any signature), properties, signals and who owns a name.
Signals arrive through GLib's default context, which pump() (and received()) runs.'''
import time

import dbus
import dbus.lowlevel
from dbus.mainloop.glib import DBusGMainLoop
from gi.repository import GLib

from harness.wait import wait_until

PROPS = 'org.freedesktop.DBus.Properties'
MANAGER = 'org.freedesktop.DBus.ObjectManager'
INTROSPECTABLE = 'org.freedesktop.DBus.Introspectable'
PEER = 'org.freedesktop.DBus.Peer'
MOCK = 'org.freedesktop.DBus.Mock'
DRIVER, DRIVER_PATH = 'org.freedesktop.DBus', '/org/freedesktop/DBus'

# the daemon's own API
NAME = 'com.quorbel.common.Bluetooth1'
PATH = '/com/quorbel/common/Bluetooth1'
RADIO, ADVERT, SCANNER = NAME + '.Radio', NAME + '.Advert', NAME + '.Scanner'
ERROR = NAME + '.Error.'
INVALID_ARGS = 'org.freedesktop.DBus.Error.InvalidArgs'

Error = dbus.exceptions.DBusException


def pump():
    '''Delivers what has arrived for every connection: signals go to their receivers.'''
    context = GLib.MainContext.default()
    while context.pending():
        context.iteration(False)


def pump_for(seconds):
    '''Delivers signals as they arrive for `seconds`.'''
    wait_until(pump, seconds, step=0.01)


class Answer:
    '''What came back for one raw call: a reply or an error, who sent it, and how long it took.'''

    def __init__(self, message, elapsed):
        self.elapsed = elapsed
        self.sender = message.get_sender() if message is not None else None
        self.error = message.get_error_name() if isinstance(message, dbus.lowlevel.ErrorMessage) else None
        self.body = message.get_args_list() if message is not None else []

    @property
    def is_error(self):
        return self.error is not None

    def __repr__(self):
        what = f'error {self.error}' if self.error else 'reply'
        return f'{what} from {self.sender} after {self.elapsed:.3f}s'


def _message(destination, path, interface, member, signature, args):
    message = dbus.lowlevel.MethodCallMessage(destination, path, interface, member)
    if signature:
        message.append(*args, signature=signature)
    return message


class Bus:
    '''One connection to the bus at `address`, closed by close() or at the end of a with block.'''

    def __init__(self, address):
        self.address = address
        self.conn = dbus.bus.BusConnection(address, mainloop=DBusGMainLoop())
        self.signals = []   # (member, args) of what subscribe() recorded

    def close(self):
        self.conn.close()

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    @property
    def connected(self):
        return self.conn.get_is_connected()

    # ------------------------------------------------------------------ calls
    def proxy(self, service, path):
        return self.conn.get_object(service, path, introspect=False)

    def call(self, service, path, iface, method, *args, **kw):
        '''A method call through a proxy: dbus-python guesses the signature unless `signature` is given;
        `timeout` in seconds.'''
        return self.proxy(service, path).get_dbus_method(method, iface)(*args, **kw)

    def ask(self, path, interface, member, signature='', args=(), destination=NAME, timeout=60.0):
        '''One raw method call, whatever its signature, waited for. The sender tells the service's own
        answers from the bus's (NoReply when the service went away or the call timed out).'''
        got = []
        started = time.monotonic()
        pending = self.conn.send_message_with_reply(_message(destination, path, interface, member, signature, args),
                                                    got.append, timeout, require_main_loop=False)
        pending.block()
        return Answer(got[0] if got else None, time.monotonic() - started)

    def send(self, path, interface, member, signature='', args=(), destination=NAME):
        '''One raw method call whose answer nobody waits for.'''
        self.conn.send_message(_message(destination, path, interface, member, signature, args))

    def flush(self):
        self.conn.flush()

    def ping(self, service, path='/', timeout=None):
        kw = {} if timeout is None else {'timeout': timeout}
        self.conn.call_blocking(service, path, PEER, 'Ping', '', (), **kw)

    # ------------------------------------------------------------------ properties
    def get(self, service, path, iface, name, **kw):
        return self.call(service, path, PROPS, 'Get', iface, name, **kw)

    def set(self, service, path, iface, name, value):
        self.call(service, path, PROPS, 'Set', iface, name, value, signature='ssv')

    # ------------------------------------------------------------------ signals
    def subscribe(self, service, path, member, iface=None):
        '''Records every `member` signal from `service` at `path` into self.signals, as it is pumped.'''
        def record(*args):
            self.signals.append((member, args))
        self.conn.add_signal_receiver(record, signal_name=member, dbus_interface=iface, bus_name=service, path=path)

    def on_signal(self, handler, service, path, member, iface=None):
        self.conn.add_signal_receiver(handler, signal_name=member, dbus_interface=iface, bus_name=service, path=path)

    def received(self, member):
        '''The arguments of every `member` signal recorded so far, what has arrived pumped first.'''
        pump()
        return [args for m, args in self.signals if m == member]

    # ------------------------------------------------------------------ names
    def has_owner(self, name):
        return bool(self.conn.name_has_owner(name))

    def owner(self, name):
        return str(self.conn.get_name_owner(name))

    def request_name(self, name):
        return self.conn.request_name(name, dbus.bus.NAME_FLAG_DO_NOT_QUEUE)

    def release_name(self, name):
        return self.conn.release_name(name)

    def pid_of(self, name):
        return self.call(DRIVER, DRIVER_PATH, DRIVER, 'GetConnectionUnixProcessID', name)

    def unique_names_of(self, pid):
        '''The unique names of every connection process `pid` has on this bus.'''
        names = []
        for name in self.call(DRIVER, DRIVER_PATH, DRIVER, 'ListNames'):
            if name.startswith(':'):
                try:
                    if self.pid_of(name) == pid:
                        names.append(str(name))
                except Error:
                    pass
        return names
