#!/usr/bin/python3
'''One daemon per unit: a second copy started beside a running one leaves at once with status 1 and one
line naming the first, having touched no tool and no bus; --help and --version answer and start nothing.'''
import os
import signal
import subprocess
import unittest

from harness.bus import NAME
from harness.bus_monitor import BusMonitor
from harness.daemon_process import NotifySocket
from harness.peers import SETTINGS
from harness.unit import Unit
from harness.wait import wait_until

# auto-scan off: the first daemon is quiet once ready, so whatever the buses see meanwhile is the second's
QUIET = {'autoScanEnabled': False}


class Buses:
    '''Every message on both buses between two marker pings sent from the test.'''

    def __init__(self, unit):
        self.unit = unit
        self.monitors = {kind: BusMonitor(unit.env.environ[var], unit.env.path('logs', f'{kind}-monitor.txt'))
                         for kind, var in (('system', 'DBUS_SYSTEM_BUS_ADDRESS'),
                                           ('user', 'DBUS_SESSION_BUS_ADDRESS'))}
        self.peers = {'system': (unit.system, 'org.bluez'),
                      'user': (unit.user, SETTINGS[0])}
        self.marks = {}

    def _pings(self, kind):
        return [i for i, (_, k, m) in enumerate(self.monitors[kind].messages()) if k == 'mc' and m == 'Ping']

    def mark(self):
        '''A ping on each bus, repeated until its monitor has seen one: a monitor only just started may
        not be listening yet.'''
        for kind, (bus, name) in self.peers.items():
            before = len(self._pings(kind))
            if not wait_until(lambda: len(self._pings(kind)) > before or bus.ping(name), 10, step=0.1):
                raise AssertionError(f'the {kind} bus monitor never saw a marker')
            self.marks.setdefault(kind, []).append(len(self._pings(kind)))

    def between_marks(self):
        '''kind -> the calls and signals after the first mark's last ping and before the second's first.'''
        found = {}
        for kind, monitor in self.monitors.items():
            monitor.stop()
            messages = monitor.messages()
            pings = self._pings(kind)
            first_mark, second_mark = self.marks[kind][:2]
            begin, end = pings[first_mark - 1], pings[first_mark]
            assert second_mark > first_mark, messages
            # replies carry no member: the marker's own reply is one, anything of the second's a call first
            found[kind] = [m for m in messages[begin + 1:end] if m[1] in ('mc', 'sig')]
        return found


class OneInstance(unittest.TestCase):
    def run_second(self, unit, *args):
        '''A second copy of the daemon in the same unit: (status, stdout lines, stderr lines, notify).'''
        notify = NotifySocket(unit.env.path('notify-second.sock'))
        try:
            done = unit.env.run([os.environ['QB_DAEMON']] + list(args), extra_env={'NOTIFY_SOCKET': notify.path},
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=20)
            notify.wait_for('READY=1', timeout=0.5)
            return (done.returncode, done.stdout.decode().splitlines(), done.stderr.decode().splitlines(),
                    [m for _, m in notify.messages])
        finally:
            notify.close()

    def test_a_second_daemon_beside_the_first_exits_with_one_line_and_touches_nothing(self):
        with Unit(self, settings=QUIET) as unit:
            first = unit.start()
            lock = unit.env.environ['QUORBEL_BLUETOOTHD_LOCK_FILE']
            buses = Buses(unit)
            buses.mark()
            calls = unit.env.hci_calls()
            status, out, err, notified = self.run_second(unit)
            buses.mark()
            self.assertEqual(status, 1)
            self.assertEqual(err, [f'err: quorbel-bluetoothd is already running as PID {first.proc.pid} '
                                   f'(lock {lock} held); exiting'])
            self.assertEqual(out, [])
            self.assertEqual(notified, [])
            self.assertEqual(unit.env.hci_calls(), calls)
            self.assertEqual(buses.between_marks(), {'system': [], 'user': []})
            # the first goes on serving, its PID still in the lock file
            self.assertTrue(unit.user.has_owner(NAME))
            with open(lock) as f:
                self.assertEqual(f.read(), f'{first.proc.pid}\n')

    def test_a_daemon_killed_outright_leaves_the_lock_to_the_next(self):
        with Unit(self, settings=QUIET) as unit:
            first = unit.start()
            self.assertEqual(first.stop(signal.SIGKILL), -signal.SIGKILL)
            unit.daemon = None
            second = unit.start()
            with open(unit.env.environ['QUORBEL_BLUETOOTHD_LOCK_FILE']) as f:
                self.assertEqual(f.read(), f'{second.proc.pid}\n')
            self.assertNotIn('exiting', ' '.join(second.texts()))

    def test_version_and_help_answer_and_start_nothing(self):
        with Unit(self, settings=QUIET) as unit:
            lock = unit.env.environ['QUORBEL_BLUETOOTHD_LOCK_FILE']
            buses = Buses(unit)
            buses.mark()
            status, out, err, notified = self.run_second(unit, '--version')
            self.assertEqual((status, out, err, notified), (0, ['quorbel-bluetoothd 1.0.0'], [], []))
            status, out, err, notified = self.run_second(unit, 'ignored', '--help')
            self.assertEqual((status, err, notified), (0, [], []))
            self.assertEqual(out[0], 'Usage: quorbel-bluetoothd')
            self.assertIn('  --version  print the version and exit', out)
            buses.mark()
            self.assertEqual(unit.env.hci_calls(), [])
            self.assertEqual(buses.between_marks(), {'system': [], 'user': []})
            self.assertFalse(os.path.exists(lock))
            # and beside a running daemon, as a person checks the installed version
            first = unit.start()
            status, out, err, notified = self.run_second(unit, '--version')
            self.assertEqual((status, out, err, notified), (0, ['quorbel-bluetoothd 1.0.0'], [], []))
            self.assertEqual(first.proc.poll(), None)


if __name__ == '__main__':
    unittest.main()
