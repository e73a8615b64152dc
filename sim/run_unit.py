#!/usr/bin/python3
'''Runs the daemon inside the simulated unit until Ctrl-C, its log on this terminal.

The unit: private system and user buses with simulated BlueZ (adapter hci0 and some nearby devices),
systemd, settings, network and power daemons; hcitool/hciconfig replaced by recording stubs; a fake
/sys/class/bluetooth with hci0. The work folder's env.sh lets another terminal talk to the unit:
    source <folder>/env.sh; sim/unitctl ...
'''
import argparse
import os
import signal
import socket
import subprocess
import sys
import threading

from harness.testenv import TestEnv

HERE = os.path.dirname(os.path.abspath(__file__))


def say(text):
    print(f'simulate: {text}', file=sys.stderr, flush=True)


def watch_notify(path):
    sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    sock.bind(path)

    def loop():
        while True:
            data = sock.recv(4096).decode('utf-8', 'replace')
            say(f"daemon notified systemd: {data.replace(chr(10), ' ')}")
    threading.Thread(target=loop, daemon=True).start()
    return sock


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument('daemon', help='the daemon binary')
    ap.add_argument('--no-hci0', action='store_true', help='start without hci0 (watch the watchdog work)')
    a = ap.parse_args()
    # a short scan period, so that the auto-scan shows soon after start
    params = {'systemd': {'on_restart_mkdir': {'bluetooth.service': '@SYSFS_BT@/hci0'}},
              'settings': {'autoScanRateSecs': 5}}
    with TestEnv(sandbox=True, hci0=not a.no_hci0, params=params) as env:
        populate = os.path.join(HERE, 'populate_unit.py')
        if os.path.exists(populate):
            subprocess.run(['/usr/bin/python3', populate], env=env.environ, check=False)
        say(f'unit is up in {env.dir}')
        say(f'from another terminal: source {env.path("env.sh")}; then e.g. {HERE}/unitctl --help')
        watch_notify(env.environ['TESTENV_NOTIFY_SOCKET'])
        proc = env.popen([a.daemon], extra_env={'NOTIFY_SOCKET': env.environ['TESTENV_NOTIFY_SOCKET']})
        try:
            rc = proc.wait()
        except KeyboardInterrupt:
            proc.send_signal(signal.SIGINT)
            rc = proc.wait()
        say(f'daemon exited with status {rc}; HCI tool calls it made are in {env.hci_log} (removed now)')
        calls = env.hci_calls()
        if calls:
            say('HCI tool calls:')
            for line in calls:
                print(f'  {line}', file=sys.stderr)
    return 0


if __name__ == '__main__':
    sys.exit(main())
