#!/usr/bin/python3
'''Months of a unit's life in a few minutes: the daemon binary in the simulated unit through many scan
passes and camera configurations, answering every one. Built with AddressSanitizer, the daemon's
LeakSanitizer checks at its exit that nothing it allocated was lost, and any report of either fails
the test; in every build the daemon's memory must stay flat over the passes.

QB_SOAK_PASSES (1,000 by default) and QB_SOAK_CONFIGS (100) set the counts; tests/integration/soak/run-soak
runs it on the ASan build with counts of one's own.
'''
import glob
import json
import os
import sys
import time
import unittest

import dbus

from harness.bus import ADVERT, RADIO, SCANNER
from harness.daemon_process import built_with_asan, rss_kib
from harness.unit import CAMERA, PHONE, UNIT_3, Service, documents
from harness.wait import wait_until

PASSES = int(os.environ.get('QB_SOAK_PASSES', '1000'))
CONFIGS = int(os.environ.get('QB_SOAK_CONFIGS', '100'))
# VmRSS after the last pass at most the one after the first tenth x 1.05 + 512 KiB: room for what the
# allocator keeps, none for a record or a message kept per pass
RSS_FACTOR, RSS_SLACK_KIB = 1.05, 512


class Soak(unittest.TestCase):
    def test_many_scans_and_configurations_answered_nothing_leaked_memory_flat(self):
        binary = os.environ['QB_DAEMON']
        asan = built_with_asan(binary)
        if os.environ.get('QB_SANITIZE') == 'address':
            # the leak verdict below would be empty otherwise
            self.assertTrue(asan, f'{binary} is not built with AddressSanitizer')
        with Service(self, devices=[CAMERA, UNIT_3, PHONE]) as unit:
            reports = unit.env.path('asan')
            options = os.environ.get('ASAN_OPTIONS', '')
            options = ':'.join(o for o in (options, 'detect_leaks=1', f'log_path={reports}') if o)
            daemon = unit.start(extra_env={'ASAN_OPTIONS': options})
            # the pause around advertising would make the soak about the pause
            unit.set(ADVERT, 'Advertising', dbus.Boolean(False))
            pid = daemon.proc.pid
            every = max(1, PASSES // CONFIGS) if CONFIGS else 0
            configured = 0
            rss_early = None
            started = time.monotonic()
            for n in range(1, PASSES + 1):
                found = documents(unit.call(SCANNER, 'Scan', timeout=30))
                self.assertEqual(set(found), {CAMERA, UNIT_3, PHONE}, f'pass {n}')
                if every and n % every == 0 and configured < CONFIGS:
                    self.assertIsNone(unit.call(RADIO, 'ConfigKelpBle', CAMERA))
                    configured += 1
                    self.assertTrue(wait_until(lambda: len(unit.received('ConfiguredKelpBle')) >= configured, 30),
                                    f'configuration {configured} never reported')
                    success, text = unit.received('ConfiguredKelpBle')[configured - 1][0]
                    self.assertTrue(success, f'configuration {configured} failed')
                    self.assertEqual(json.loads(text)['mac'], CAMERA)
                if n == max(1, PASSES // 10):
                    rss_early = rss_kib(pid)
            rss_end = rss_kib(pid)
            elapsed = time.monotonic() - started
            self.assertEqual(configured, CONFIGS)
            self.assertTrue(unit.still_serving())
            # every configuration read the camera and left it as it was: on and on the unit's band
            self.assertEqual(unit.camera_writes(CAMERA), ['RV\r', 'RF\r', 'RP\r'] * CONFIGS)
            status = daemon.stop()
            found = sorted(glob.glob(reports + '*'))
            texts = [open(path, errors='replace').read() for path in found]
            print(f'soak: {PASSES} passes and {CONFIGS} configurations in {elapsed:.1f} s; VmRSS after pass '
                  f'{max(1, PASSES // 10)} {rss_early} KiB, after pass {PASSES} {rss_end} KiB; '
                  f'{"AddressSanitizer build, " if asan else "no sanitizer, "}'
                  f'{len(found)} sanitizer reports', file=sys.stderr)
            self.assertEqual(texts, [], 'sanitizer reports of the daemon')
            # LeakSanitizer fails the exit too; nothing else may
            self.assertEqual(status, 0, daemon.texts()[-20:])
            if not asan:
                bound = rss_early * RSS_FACTOR + RSS_SLACK_KIB
                self.assertLessEqual(rss_end, bound, f'VmRSS {rss_early} KiB -> {rss_end} KiB')


if __name__ == '__main__':
    unittest.main()
