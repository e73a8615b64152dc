#!/usr/bin/python3
'''The hermetic unit: everything the daemon talks to, brought up privately for one test run.

  * a private user bus and a private system bus (two dbus-daemons with a minimal allow-all config);
    DBUS_SESSION_BUS_ADDRESS and DBUS_SYSTEM_BUS_ADDRESS point at them, XDG_RUNTIME_DIR is unset so
    nothing can fall back to a real bus;
  * the simulated peers from sim/ (python3-dbusmock templates): BlueZ and the systemd manager on the
    system bus; the settings, network and power daemons on the user bus;
  * recording stubs of /usr/bin/hcitool and /usr/bin/hciconfig and a controllable
    /sys/class/bluetooth, visible to commands run in the mount namespace (--sandbox);
  * a unit identity file (VANTU_IDENTITY_FILE), a free path for NOTIFY_SOCKET, and the daemon's
    one-instance lock file in the unit's own run/ (QUORBEL_BLUETOOTHD_LOCK_FILE).

CLI (with tests/ on PYTHONPATH):
  python3 -m harness.testenv run [--sandbox] [--no-hci0] [--without NAME]... [--param NAME=JSON]... [--keep]
                                 -- CMD [ARGS...]
      runs CMD inside the unit and exits with its status.
Environment seen by CMD (and by Python users through TestEnv.environ):
  DBUS_SESSION_BUS_ADDRESS, DBUS_SYSTEM_BUS_ADDRESS
  TESTENV_DIR            the unit's work folder (logs/, stubs/, sys_bluetooth/)
  TESTENV_HCI_LOG        one line per hcitool/hciconfig call
  TESTENV_SYSFS_BT       the folder seen as /sys/class/bluetooth inside the namespace
  TESTENV_NOTIFY_SOCKET  a free path to bind for NOTIFY_SOCKET
  VANTU_IDENTITY_FILE    the unit's identity (serial, model, radio type)
  QUORBEL_BLUETOOTHD_LOCK_FILE  the daemon's instance lock, one per unit

Python:
  with TestEnv(sandbox=True, hci0=False, without=['systemd']) as env:
      proc = env.popen([daemon])          # inside the namespace when sandbox=True
      env.set_hci0(True)

Needs /usr/bin/python3 with python3-dbus and python3-dbusmock (a python3 earlier on PATH may lack them).
'''
import argparse
import json
import os
import select
import shutil
import signal
import subprocess
import sys
import tempfile
import time

from harness.bus import Bus, Error
from harness.wait import wait_until

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))
SIM = os.path.join(ROOT, 'sim')
PY = '/usr/bin/python3'


class Peer:
    def __init__(self, key, bus, name, template, params=None):
        self.key, self.bus, self.name, self.template, self.params = key, bus, name, template, params or {}


# key -> the peer; keys are what --without and params use
PEERS = [
    Peer('bluez', 'system', 'org.bluez', 'bluez_sim.py', {'adapter': 'hci0', 'alias': 'unit-sim'}),
    Peer('systemd', 'system', 'org.freedesktop.systemd1', 'systemd_sim.py'),
    Peer('settings', 'session', 'com.quorbel.common.Settings1', 'settings_sim.py'),
    Peer('network', 'session', 'com.quorbel.Network1', 'network_sim.py'),
    Peer('power', 'session', 'com.quorbel.common.Pylon1', 'power_sim.py'),
]

DEFAULT_IDENTITY = {'serial': 'QB00012345', 'model': 'Cobalt', 'radio_type': 1}


class TestEnvError(RuntimeError):
    pass


class TestEnv:
    def __init__(self, sandbox=False, hci0=True, without=(), params=None, identity=None, keep=False,
                 peer_output=None):
        self.sandbox = sandbox
        self.hci0 = hci0
        self.without = set(without)
        unknown = self.without - {p.key for p in PEERS}
        if unknown:
            raise TestEnvError(f'unknown peers: {sorted(unknown)}')
        self.params = params or {}
        self.identity = dict(DEFAULT_IDENTITY, **(identity or {}))
        self.keep = keep
        self.peer_output = peer_output
        self.dir = None
        self.environ = None
        self.buses = {}      # 'system'/'session' -> Popen
        self.peers = {}      # key -> Popen
        self.timings = {}

    # ------------------------------------------------------------------ paths
    def path(self, *parts):
        return os.path.join(self.dir, *parts)

    @property
    def hci_log(self):
        return self.path('hci_calls.log')

    @property
    def sysfs_bt(self):
        return self.path('sys_bluetooth')

    # ------------------------------------------------------------------ buses
    def _start_bus(self, kind, bus_type=None):
        conf = self.path(f'{kind}.conf')
        with open(os.path.join(HERE, 'bus.conf.in')) as f:
            text = f.read().replace('@TYPE@', bus_type or kind).replace('@SOCKET@', self.path(f'{kind}.sock'))
        with open(conf, 'w') as f:
            f.write(text)
        r, w = os.pipe()
        # Buses and peers get process groups of their own (a terminal's Ctrl-C reaches the test, which
        # stops them in order), not sessions: each session is a scheduling group of its own, and dozens
        # of them took the cores from everything scripts/test runs at a higher priority, the VM first.
        with open(self.path('logs', f'dbus-{kind}.err'), 'wb') as log:
            p = subprocess.Popen(['dbus-daemon', f'--config-file={conf}', '--nofork', f'--print-address={w}'],
                                 pass_fds=(w,), stdin=subprocess.DEVNULL, stderr=log, process_group=0)
        os.close(w)
        self.buses[kind] = p
        return r

    def stop_bus(self, kind):
        '''Ends the bus's dbus-daemon (SIGTERM); the peers on it lose their connection.'''
        proc = self.buses[kind]
        proc.terminate()
        proc.wait(timeout=5)

    def restart_bus(self, kind):
        '''A new dbus-daemon for the bus, at the same address, once it listens. Peers are not restarted.'''
        sock = self.path(f'{kind}.sock')
        if os.path.exists(sock):
            os.unlink(sock)
        address = self._read_address(kind, self._start_bus(kind))
        # the new daemon has a new guid: peers started from now on must not name the old one
        variable = {'session': 'DBUS_SESSION_BUS_ADDRESS', 'system': 'DBUS_SYSTEM_BUS_ADDRESS'}.get(kind)
        if variable in self.environ:
            self.environ[variable] = address
        return address

    def late_bus_address(self, name):
        '''The address a user bus called `name` will have once start_late_bus(name) brings it up.'''
        return f"unix:path={self.path(f'{name}.sock')}"

    def start_late_bus(self, name):
        '''Brings up one more user bus, with no peers on it, and returns its address once it listens.'''
        return self._read_address(name, self._start_bus(name, bus_type='session'))

    def _read_address(self, kind, fd, timeout=10):
        # the address is printed once the socket listens: exact readiness, nothing to poll
        buf = b''
        deadline = time.monotonic() + timeout
        while not buf.endswith(b'\n'):
            ready, _, _ = select.select([fd], [], [], max(0, deadline - time.monotonic()))
            if not ready:
                raise TestEnvError(f'{kind} bus gave no address within {timeout}s')
            chunk = os.read(fd, 4096)
            if not chunk:
                raise TestEnvError(f'{kind} bus exited early (rc={self.buses[kind].poll()})')
            buf += chunk
        os.close(fd)
        return buf.decode().strip()

    # ------------------------------------------------------------------ peers
    def _peer(self, key):
        for p in PEERS:
            if p.key == key:
                return p
        raise TestEnvError(f'unknown peer {key}')

    def _spawn_peer(self, key, params=None):
        peer = self._peer(key)
        merged = dict(peer.params, **self.params.get(key, {}), **(params or {}))
        cmd = [PY, '-m', 'dbusmock', f'--{peer.bus}', '-t', os.path.join(SIM, peer.template),
               '-l', self.path('logs', f'{key}.log')]
        if merged:
            # parameters may name the unit's folders before they exist: @SYSFS_BT@, @TESTENV_DIR@
            text = json.dumps(merged).replace('@SYSFS_BT@', self.sysfs_bt).replace('@TESTENV_DIR@', self.dir)
            cmd += ['-p', text]
        out = self.peer_output or open(self.path('logs', f'{key}.err'), 'ab')
        self.peers[key] = subprocess.Popen(cmd, env=self.environ, stdin=subprocess.DEVNULL, stdout=out,
                                           stderr=out, process_group=0)

    def start_peer(self, key, params=None):
        '''Starts (or starts again) one simulated peer and waits until it answers.'''
        self._spawn_peer(key, params)
        self._wait_ready([key])

    def stop_peer(self, key):
        proc = self.peers.pop(key, None)
        if proc is not None and proc.poll() is None:
            proc.terminate()
            try:
                proc.wait(timeout=5)
            except subprocess.TimeoutExpired:
                proc.kill()
                proc.wait()

    def _wait_ready(self, keys, timeout=20):
        buses = {}
        pending = list(keys)

        def answered(key):
            peer, proc = self._peer(key), self.peers[key]
            if proc.poll() is not None:
                err = self.path('logs', f'{key}.err')
                text = open(err).read() if os.path.exists(err) else ''
                raise TestEnvError(f'peer {key} died (rc={proc.returncode}):\n{text}')
            if peer.bus not in buses:
                buses[peer.bus] = Bus(self.environ['DBUS_SYSTEM_BUS_ADDRESS' if peer.bus == 'system'
                                                   else 'DBUS_SESSION_BUS_ADDRESS'])
            bus = buses[peer.bus]
            # dbusmock owns the name before its template has loaded; a Ping is answered only once the main
            # loop runs, that is after the template loaded
            if not bus.has_owner(peer.name):
                return False
            try:
                bus.ping(peer.name, timeout=5)
                return True
            except Error:
                return False

        def all_ready():
            pending[:] = [key for key in pending if not answered(key)]
            return not pending
        try:
            if not wait_until(all_ready, timeout, step=0.01):
                raise TestEnvError(f'peers not ready after {timeout}s: {pending}')
        finally:
            for bus in buses.values():
                bus.close()

    # ------------------------------------------------------------------ stubs, sysfs, identity
    def _make_stubs(self):
        os.makedirs(self.path('stubs'))
        with open(os.path.join(HERE, 'recording_stub.sh.in')) as f:
            template = f.read()
        for tool in ('hcitool', 'hciconfig'):
            stub = self.path('stubs', tool)
            with open(stub, 'w') as f:
                f.write(template.replace('@TOOL@', tool).replace('@LOG@', self.hci_log)
                        .replace('@DIR@', self.path('stubs')))
            os.chmod(stub, 0o755)
        open(self.hci_log, 'w').close()
        os.makedirs(self.sysfs_bt)
        self.set_hci0(self.hci0)

    def set_hci0(self, present):
        '''Makes hci0 appear or vanish in the namespace's /sys/class/bluetooth, at once.'''
        node = os.path.join(self.sysfs_bt, 'hci0')
        if present:
            os.makedirs(node, exist_ok=True)
        elif os.path.isdir(node):
            os.rmdir(node)

    def set_stub_status(self, tool, status):
        with open(self.path('stubs', f'{tool}.rc'), 'w') as f:   # in place: the stub is bound by inode
            f.write(f'{status}\n')

    def set_stub_delay(self, tool, seconds):
        '''Makes each call of `tool` sleep `seconds` after it is logged: a call seen in the log is still
        running for that long.'''
        with open(self.path('stubs', f'{tool}.sleep'), 'w') as f:
            f.write(f'{seconds}\n')

    def hci_calls(self):
        with open(self.hci_log) as f:
            return [line.rstrip('\n') for line in f]

    def write_identity(self, serial=None, model=None, radio_type=None):
        if serial is not None:
            self.identity['serial'] = serial
        if model is not None:
            self.identity['model'] = model
        if radio_type is not None:
            self.identity['radio_type'] = radio_type
        with open(self.path('identity'), 'w') as f:
            f.write('# unit identity of the simulated unit\n')
            f.write(f"serial={self.identity['serial']}\nmodel={self.identity['model']}\n"
                    f"radio_type={self.identity['radio_type']}\n")

    # ------------------------------------------------------------------ lifecycle
    def start(self):
        t0 = time.monotonic()
        self.dir = tempfile.mkdtemp(prefix='qb-unit.')
        os.makedirs(self.path('logs'))
        self._make_stubs()
        self.write_identity()
        fds = {kind: self._start_bus(kind) for kind in ('session', 'system')}
        env = dict(os.environ)
        env.pop('XDG_RUNTIME_DIR', None)
        for var in ('NOTIFY_SOCKET', 'JOURNAL_STREAM', 'INVOCATION_ID'):
            env.pop(var, None)
        env['DBUS_SESSION_BUS_ADDRESS'] = self._read_address('session', fds['session'])
        env['DBUS_SYSTEM_BUS_ADDRESS'] = self._read_address('system', fds['system'])
        env['TESTENV_DIR'] = self.dir
        env['TESTENV_HCI_LOG'] = self.hci_log
        env['TESTENV_SYSFS_BT'] = self.sysfs_bt
        env['TESTENV_NOTIFY_SOCKET'] = self.path('notify.sock')
        env['VANTU_IDENTITY_FILE'] = self.path('identity')
        env['QUORBEL_BLUETOOTHD_LOCK_FILE'] = self.path('run', 'quorbel-bluetoothd.lock')
        self.environ = env
        t1 = time.monotonic()
        keys = [p.key for p in PEERS if p.key not in self.without]
        for key in keys:
            self._spawn_peer(key)
        self._wait_ready(keys)
        self.timings = {'buses_s': round(t1 - t0, 3), 'peers_s': round(time.monotonic() - t1, 3)}
        with open(self.path('env.sh'), 'w') as f:
            for k in ('DBUS_SESSION_BUS_ADDRESS', 'DBUS_SYSTEM_BUS_ADDRESS', 'TESTENV_DIR', 'TESTENV_HCI_LOG',
                      'TESTENV_SYSFS_BT', 'TESTENV_NOTIFY_SOCKET', 'VANTU_IDENTITY_FILE',
                      'QUORBEL_BLUETOOTHD_LOCK_FILE'):
                f.write(f"export {k}='{env[k]}'\n")
            f.write('unset XDG_RUNTIME_DIR\n')
        return self

    def command(self, argv):
        '''argv, wrapped into the mount namespace when sandbox=True.'''
        if self.sandbox:
            return [os.path.join(HERE, 'sandbox.sh'), self.dir] + list(argv)
        return list(argv)

    def run(self, argv, extra_env=None, **kw):
        return subprocess.run(self.command(argv), env=dict(self.environ, **(extra_env or {})), **kw)

    def popen(self, argv, extra_env=None, **kw):
        return subprocess.Popen(self.command(argv), env=dict(self.environ, **(extra_env or {})), **kw)

    def stop(self):
        for key in list(self.peers):
            self.stop_peer(key)
        for proc in self.buses.values():
            if proc.poll() is None:
                proc.terminate()
        for proc in self.buses.values():
            try:
                proc.wait(timeout=5)
            except subprocess.TimeoutExpired:
                proc.kill()
                proc.wait()
        self.buses.clear()
        if self.dir and not self.keep:
            shutil.rmtree(self.dir, ignore_errors=True)

    def __enter__(self):
        try:
            return self.start()
        except BaseException:
            self.stop()
            raise

    def __exit__(self, *exc):
        self.stop()


def parse_params(items):
    params = {}
    for item in items:
        key, _, text = item.partition('=')
        params[key] = json.loads(text)
    return params


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    sub = ap.add_subparsers(dest='cmd', required=True)
    r = sub.add_parser('run', help='run a command inside the hermetic unit')
    r.add_argument('--sandbox', action='store_true', help='run in the mount namespace (stubs, fake sysfs)')
    r.add_argument('--no-hci0', action='store_true', help='start without /sys/class/bluetooth/hci0')
    r.add_argument('--without', action='append', default=[], help='leave a peer out (bluez, systemd, ...)')
    r.add_argument('--param', action='append', default=[], help='peer parameters: NAME=JSON object')
    r.add_argument('--keep', action='store_true', help='keep the work folder and its logs')
    r.add_argument('argv', nargs=argparse.REMAINDER)
    a = ap.parse_args()
    argv = a.argv[1:] if a.argv[:1] == ['--'] else a.argv
    if not argv:
        ap.error('missing command')
    env = TestEnv(sandbox=a.sandbox, hci0=not a.no_hci0, without=a.without, params=parse_params(a.param),
                  keep=a.keep)
    with env:
        proc = env.popen(argv)
        try:
            rc = proc.wait()
        except KeyboardInterrupt:
            proc.send_signal(signal.SIGINT)
            rc = proc.wait()
        if rc != 0 or a.keep:
            print(f'testenv: command exited {rc}; work folder {env.dir}'
                  + ('' if a.keep else ' (removed; --keep keeps it)'), file=sys.stderr)
            if rc != 0:
                for name in sorted(os.listdir(env.path('logs'))):
                    text = open(env.path('logs', name), errors='replace').read().strip()
                    if text and name.endswith('.err') and 'Failed to set fd limit' not in text:
                        print(f'--- {name}\n{text[-3000:]}', file=sys.stderr)
    sys.exit(rc if rc >= 0 else 128 - rc)


if __name__ == '__main__':
    main()
