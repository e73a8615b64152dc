#!/usr/bin/python3
'''The BlueZ client follows bluetoothd leaving and coming back on the system bus.'''
import os
import subprocess
import unittest

import dbus

from harness.bus import Bus
from harness.peers import Bluez
from harness.testenv import TestEnv
from harness.wait import wait_until

PROBE = os.path.join(os.environ.get('QB_BUILD_DIR', 'build'), 'tests', 'integration', 'bluez', 'tinyb_probe')


class Probe:
    def __init__(self, env):
        self.proc = env.popen([PROBE], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self.first = self.proc.stdout.readline().strip()

    def ask(self, command):
        self.proc.stdin.write(command + '\n')
        self.proc.stdin.flush()
        return self.proc.stdout.readline().strip()

    def wait_for(self, command, expected, timeout=5):
        '''The answer to `command`, asked again until it is `expected` or `timeout` seconds passed.'''
        answers = []
        wait_until(lambda: answers.append(self.ask(command)) or answers[-1] == expected, timeout, step=0.02)
        return answers[-1]

    def close(self):
        self.proc.stdin.close()
        return self.proc.wait(timeout=5)


def add_device(env, address):
    with Bus(env.environ['DBUS_SYSTEM_BUS_ADDRESS']) as bus:
        Bluez(bus).add_device(address, {'Name': dbus.String('peer')})


class BluezRestart(unittest.TestCase):
    def test_cache_empties_when_bluez_leaves_and_reloads_when_it_returns(self):
        with TestEnv() as env:
            add_device(env, 'AA:00:00:00:09:01')
            probe = Probe(env)
            try:
                self.assertEqual(probe.first, 'ready')
                self.assertEqual(probe.ask('devices'), 'AA:00:00:00:09:01')
                self.assertEqual(probe.ask('calls'), '1')  # the one GetManagedObjects

                env.stop_peer('bluez')
                self.assertEqual(probe.wait_for('devices', ''), '')
                self.assertTrue(probe.ask('adapter').startswith('error: '))

                # a new bluetoothd with other devices: the client loads its objects again
                env.start_peer('bluez')
                add_device(env, 'AA:00:00:00:09:02')
                self.assertEqual(probe.wait_for('devices', 'AA:00:00:00:09:02'), 'AA:00:00:00:09:02')
                self.assertEqual(probe.ask('adapter'), '/org/bluez/hci0')
                self.assertEqual(probe.ask('calls'), '2')
            finally:
                self.assertEqual(probe.close(), 0)

    def test_no_bluez_at_start_is_an_error(self):
        with TestEnv(without=['bluez']) as env:
            probe = Probe(env)
            self.assertEqual(probe.first, 'error: org.freedesktop.DBus.Error.ServiceUnknown: '
                                          'The name org.bluez was not provided by any .service files')
            self.assertEqual(probe.proc.wait(timeout=5), 1)


if __name__ == '__main__':
    unittest.main()
