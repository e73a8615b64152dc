#!/usr/bin/python3
'''The clients keep receiving their peers' signals when a peer restarts, or starts only after Listen().

Drives the listen probe (ListenProbe.cpp, path in QB_CLIENTS_PROBE) inside the hermetic unit and
stops/starts the simulated peers underneath it.
'''
import os
import subprocess
import threading
import unittest

import dbus

from harness.bus import Bus
from harness.peers import NETWORK, POWER, SETTINGS, set_prop
from harness.testenv import TestEnv
from harness.wait import wait_until

PEERS = {'settings': SETTINGS, 'network': NETWORK, 'power': POWER}


class Probe:
    def __init__(self, env):
        binary = os.environ.get('QB_CLIENTS_PROBE')
        if not binary or not os.path.exists(binary):
            raise AssertionError(f'QB_CLIENTS_PROBE={binary!r} does not name the built listen probe')
        self.proc = env.popen([binary], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                              stderr=subprocess.DEVNULL, text=True)
        self.lines = []
        self.seen = []
        threading.Thread(target=self._read, daemon=True).start()

    def _read(self):
        for line in self.proc.stdout:
            self.lines.append(line.rstrip('\n'))

    def _take(self, wanted):
        # lines are taken in order: the ones before `wanted` go to self.seen with it
        while len(self.seen) < len(self.lines):
            self.seen.append(self.lines[len(self.seen)])
            if self.seen[-1] == wanted:
                return True
        return False

    def wait_line(self, wanted, timeout=5):
        '''The first line equal to `wanted` (earlier other lines are kept in self.seen), or a failure.'''
        if not wait_until(lambda: self._take(wanted), timeout, step=0.01):
            raise AssertionError(f'no line {wanted!r} within {timeout}s; seen: {self.seen}')
        return wanted

    def stop(self):
        self.proc.stdin.close()
        try:
            return self.proc.wait(timeout=10)
        except subprocess.TimeoutExpired:
            self.proc.kill()
            return self.proc.wait()


def set_peer_prop(env, peer, name, value):
    with Bus(env.environ['DBUS_SESSION_BUS_ADDRESS']) as bus:
        set_prop(bus, *PEERS[peer], name, value)


class ClientsAcrossPeerRestarts(unittest.TestCase):
    def check_flowing(self, env, probe, round_):
        set_peer_prop(env, 'settings', 'autoScanRateSecs', dbus.UInt32(40 + round_))
        probe.wait_line(f'settings bluetooth autoScanRateSecs:u={40 + round_}')
        set_peer_prop(env, 'network', 'IPAddress', f'10.0.0.{round_}')
        probe.wait_line(f'network IPAddress:s=10.0.0.{round_}')
        set_peer_prop(env, 'power', 'BatteryTypes', dbus.Array([dbus.UInt32(round_)], signature='u'))
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
