#!/usr/bin/python3
'''The clients keep receiving their peers' signals when a peer restarts, or starts only after Listen().

Drives the listen probe (ListenProbe.cpp, path in QB_CLIENTS_PROBE) inside the hermetic unit and
stops/starts the simulated peers underneath it.
'''
import os
import queue
import subprocess
import sys
import threading
import unittest

import dbus

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), '..', '..', 'harness'))
from testenv import TestEnv  # noqa: E402

PEERS = {
    'settings': ('com.quorbel.common.Settings1', '/com/quorbel/common/Settings1/bluetooth'),
    'network': ('com.quorbel.Network1', '/com/quorbel/Network1'),
    'power': ('com.quorbel.common.Pylon1', '/com/quorbel/common/Pylon1/power'),
}


class Probe:
    def __init__(self, env):
        binary = os.environ.get('QB_CLIENTS_PROBE')
        if not binary or not os.path.exists(binary):
            raise AssertionError(f'QB_CLIENTS_PROBE={binary!r} does not name the built listen probe')
        self.proc = env.popen([binary], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                              stderr=subprocess.DEVNULL, text=True)
        self.lines = queue.Queue()
        self.seen = []
        threading.Thread(target=self._read, daemon=True).start()

    def _read(self):
        for line in self.proc.stdout:
            self.lines.put(line.rstrip('\n'))

    def wait_line(self, wanted, timeout=5):
        '''The first line equal to `wanted` (earlier other lines are kept in self.seen), or a failure.'''
        while True:
            try:
                line = self.lines.get(timeout=timeout)
            except queue.Empty:
                raise AssertionError(f'no line {wanted!r} within {timeout}s; seen: {self.seen}') from None
            self.seen.append(line)
            if line == wanted:
                return line

    def stop(self):
        self.proc.stdin.close()
        try:
            return self.proc.wait(timeout=10)
        except subprocess.TimeoutExpired:
            self.proc.kill()
            return self.proc.wait()


def set_prop(env, peer, name, value):
    bus = dbus.bus.BusConnection(env.environ['DBUS_SESSION_BUS_ADDRESS'])
    try:
        service, path = PEERS[peer]
        bus.get_object(service, path).SetProp(name, value, dbus_interface='org.freedesktop.DBus.Mock')
    finally:
        bus.close()


class ClientsAcrossPeerRestarts(unittest.TestCase):
    def check_flowing(self, env, probe, round_):
        set_prop(env, 'settings', 'autoScanRateSecs', dbus.UInt32(40 + round_))
        probe.wait_line(f'settings bluetooth autoScanRateSecs:u={40 + round_}')
        set_prop(env, 'network', 'IPAddress', f'10.0.0.{round_}')
        probe.wait_line(f'network IPAddress:s=10.0.0.{round_}')
        set_prop(env, 'power', 'BatteryTypes', dbus.Array([dbus.UInt32(round_)], signature='u'))
        probe.wait_line(f'power BatteryTypes:au=[{round_}]')

    def test_signals_keep_flowing_after_each_peer_restarts(self):
        with TestEnv() as env:
            probe = Probe(env)
            try:
                probe.wait_line('ready')
                self.assertIn('listen settings 0', probe.seen)
                self.assertIn('listen network 0', probe.seen)
                self.assertIn('listen power 0', probe.seen)
                self.check_flowing(env, probe, 1)
                for peer in ('settings', 'network', 'power'):
                    env.stop_peer(peer)
                    env.start_peer(peer)
                self.check_flowing(env, probe, 2)
                # and once more, the restarted peers restarted again
                for peer in ('settings', 'network', 'power'):
                    env.stop_peer(peer)
                    env.start_peer(peer)
                self.check_flowing(env, probe, 3)
            finally:
                self.assertEqual(probe.stop(), 0)

    def test_peers_starting_after_listen_are_heard(self):
        with TestEnv(without=['settings', 'network', 'power']) as env:
            probe = Probe(env)
            try:
                probe.wait_line('ready')
                self.assertIn('listen settings 0', probe.seen)
                for peer in ('settings', 'network', 'power'):
                    env.start_peer(peer)
                self.check_flowing(env, probe, 4)
            finally:
                self.assertEqual(probe.stop(), 0)


if __name__ == '__main__':
    unittest.main()
