#!/usr/bin/python3
'''Ctrl-C during an HCI tool call is never lost: the daemon binary, its tools made slow, gets SIGINT while
one of them runs, twenty times over, and ends every time with status 0 once that call is done.'''
import signal
import time
import unittest

from harness.daemon_process import DaemonProcess
from harness.testenv import TestEnv
from harness.wait import wait_until

RUNS = 20
TOOL_SLEEP_S = 0.5
# the start advertises with four calls: parameters, leadv, data, scan response
CALLS_AT_START = 4


class StopDuringToolCalls(unittest.TestCase):
    def test_sigint_during_a_tool_call_ends_the_daemon_every_time(self):
        with TestEnv(sandbox=True) as env:
            for tool in ('hcitool', 'hciconfig'):
                env.set_stub_delay(tool, TOOL_SLEEP_S)
            for run in range(RUNS):
                # each run signals during another of the start's calls, hciconfig's leadv among them
                nth = run % CALLS_AT_START + 1
                with self.subTest(run=run, call=nth):
                    before = len(env.hci_calls())
                    daemon = DaemonProcess(env)
                    wait_until(lambda: len(env.hci_calls()) >= before + nth, 15, step=0.01)
                    calls = env.hci_calls()[before:]
                    self.assertEqual(len(calls), nth, daemon.texts())
                    signalled = time.monotonic()
                    status = daemon.stop(signal.SIGINT, timeout=10)
                    ended = time.monotonic() - signalled
                    self.assertEqual(status, 0, daemon.texts())
                    # the call under way finishes, the rest of the start's calls may follow; no more
                    self.assertLess(ended, CALLS_AT_START * TOOL_SLEEP_S + 3.0)
                    self.assertEqual(daemon.count('Initialising bluetooth daemon...'), 1)


if __name__ == '__main__':
    unittest.main()
