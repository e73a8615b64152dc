#!/usr/bin/python3
'''What the whole daemon costs, measured on the real binary in the simulated unit (the harness's
private buses, the simulated BlueZ and sibling daemons, the recording HCI stubs).

  daemon_bench.py [--smoke] [--repetitions N] [--devices 10,100,1000] [--json FILE]
                  [--daemon BINARY] [--armhf BINARY]

Figures, each the median of the repetitions with its range:
  autoscan      CPU time of the daemon per auto-scan period (rate 1 s), D-Bus messages it sends per
                period (by member), advertising commands per period
  scan          latency of Scan and of reading ScannedDevices and RemoteCameras, beside a string of the
                same size carried by the same bus to the same client (bus_reference_server)
  memory        peak RSS with every device known, RSS after pass 100 and after the last pass (Scan calls)
  startup       exec to "READY=1", hci0 present and the siblings up
  idle          wake-ups (context switches of every thread) per minute with auto-scan off
  armhf         with --armhf: the same daemon cross-built, under qemu-user: CPU per period and RSS, as
                ratios to the host's
--smoke runs everything once, briefly, with 100 devices: it shows that the suite works, and judges no
target. The exit status is 0 when every figure was measured.
'''
import argparse
import json
import os
import platform
import statistics
import subprocess
import sys
import time

import dbus

from harness.bus import ADVERT, MANAGER, NAME, PATH, SCANNER, Bus
from harness.bus_monitor import BusMonitor
from harness.daemon_process import NotifySocket
from harness.peers import ADAPTER, ADAPTER_IFACE, BLUEZ, SETTINGS, Bluez, set_prop
from harness.testenv import TestEnv

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))
REFERENCE, REFERENCE_PATH = 'com.quorbel.bench.Reference', '/com/quorbel/bench/Reference'
MIB = 1024.0 * 1024.0


def log(*parts):
    print('bench:', *parts, file=sys.stderr, flush=True)


# ------------------------------------------------------------------------------ one process's figures

def cpu_ns(pid):
    '''CPU time of the whole process, exited threads included (clock_getcpuclockid's clock).'''
    return time.clock_gettime_ns(((~pid) << 3) | 2)


def status_kib(pid, field):
    with open(f'/proc/{pid}/status') as f:
        for line in f:
            if line.startswith(field + ':'):
                return int(line.split()[1])
    raise KeyError(field)


def context_switches(pid):
    '''Every time one of the process's threads was put on a CPU, summed over its threads.'''
    total = 0
    for tid in os.listdir(f'/proc/{pid}/task'):
        try:
            with open(f'/proc/{pid}/task/{tid}/status') as f:
                for line in f:
                    if line.startswith(('voluntary_ctxt_switches:', 'nonvoluntary_ctxt_switches:')):
                        total += int(line.split()[1])
        except FileNotFoundError:
            pass
    return total


# ------------------------------------------------------------------------------ the unit

class Daemon:
    '''The daemon started inside the unit as systemd starts it: no options, NOTIFY_SOCKET set. The
    exec time is stamped by the shell that execs it, so the sandbox's own start is not counted.'''

    def __init__(self, env, binary, emulator=None):
        self.notify = NotifySocket(env.path('notify.sock'))
        stamp = env.path('exec-stamp')
        argv = ([emulator] if emulator else []) + [binary]
        self.log = open(env.path('logs', 'daemon.log'), 'wb')
        self.proc = env.popen(['/bin/sh', '-c', 'date +%s.%N >"$0" && exec "$@"', stamp] + argv,
                              extra_env={'NOTIFY_SOCKET': self.notify.path}, stdout=self.log,
                              stderr=subprocess.STDOUT)
        self.pid = self.proc.pid
        ready = self.notify.wait_for('READY=1', timeout=60)
        if ready is None:
            raise RuntimeError('the daemon sent no READY=1 within 60 s')
        ready_real = time.time() - (time.monotonic() - ready)
        with open(stamp) as f:
            self.startup_ms = (ready_real - float(f.read())) * 1000.0

    def stop(self):
        self.proc.terminate()
        try:
            status = self.proc.wait(timeout=20)
        except subprocess.TimeoutExpired:
            self.proc.kill()
            status = self.proc.wait()
        self.notify.close()
        self.log.close()
        return status


def timed(fn, times):
    '''Wall time of each call in ms, and the last result.'''
    spent, result = [], None
    for _ in range(times):
        t0 = time.perf_counter()
        result = fn()
        spent.append((time.perf_counter() - t0) * 1000.0)
    return spent, result


def run_unit(args, devices, binary, emulator=None, full_set=True):
    '''One start of the daemon in a fresh unit with `devices` devices near it; its figures.'''
    # the radio as the settings want it (BlueZ starts powered, pairable, not discoverable): no switch
    # at start, whose deliberate 100 ms settle poll run_startup measures on its own
    settings = {'autoScanEnabled': False, 'autoScanRateSecs': 1, 'advertSchema': 3, 'discoverable': False}
    out = {'devices': devices}
    with TestEnv(sandbox=True, params={'settings': settings}) as env:
        system = Bus(env.environ['DBUS_SYSTEM_BUS_ADDRESS'])
        user = Bus(env.environ['DBUS_SESSION_BUS_ADDRESS'])
        Bluez(system).add_units_and_phones(devices, 'bench')
        reference = None
        daemon = Daemon(env, binary, emulator)
        try:
            out['startup_ms'] = daemon.startup_ms
            scan = lambda: str(user.call(NAME, PATH, SCANNER, 'Scan', timeout=120))

            if full_set:
                # ---- idle: nothing asked, auto-scan off; every message on either bus is counted too
                time.sleep(1.0)
                monitors = [BusMonitor(env.environ[v], env.path('logs', f'idle-{i}.txt'))
                            for i, v in enumerate(('DBUS_SYSTEM_BUS_ADDRESS', 'DBUS_SESSION_BUS_ADDRESS'))]
                time.sleep(0.3)
                w0, t0 = context_switches(daemon.pid), time.monotonic()
                time.sleep(args.idle_s)
                w1, t1 = context_switches(daemon.pid), time.monotonic()
                for m in monitors:
                    m.stop()
                out['idle_wakeups_per_min'] = (w1 - w0) * 60.0 / (t1 - t0)
                out['idle_bus_messages'] = sum(len(m.messages()) for m in monitors)

            # ---- Scan: latency of the large reply, then memory over many passes
            timed(scan, 2)
            scan_ms, text = timed(scan, args.samples)
            out['scan_ms'] = statistics.median(scan_ms)
            out['scan_bytes'] = len(text.encode())
            out['listed'] = len(json.loads(text))
            # A Scan while advertising pauses the radio, and switching it off waits 500 ms on purpose;
            # with advertising off what is left is the pass (BlueZ's own device list included) and the
            # reply. The passes for memory run that way too, so that 1,000 of them take seconds.
            user.set(NAME, PATH, ADVERT, 'Advertising', dbus.Boolean(False))
            quiet_ms, _ = timed(scan, args.samples)
            out['scan_quiet_ms'] = statistics.median(quiet_ms)
            out['scan_quiet_bytes'] = out['scan_bytes']
            # what a pass asks of BlueZ, the same two calls from the same client: the simulated BlueZ is
            # a Python service, and its answers are part of every Scan
            discovery, _ = timed(lambda: (system.call(BLUEZ, ADAPTER, ADAPTER_IFACE, 'StartDiscovery'),
                                          system.call(BLUEZ, ADAPTER, ADAPTER_IFACE, 'StopDiscovery')), args.samples)
            out['bluez_discovery_ms'] = statistics.median(discovery)
            listing, _ = timed(lambda: system.call(BLUEZ, '/', MANAGER, 'GetManagedObjects', timeout=120),
                               args.samples)
            out['bluez_list_ms'] = statistics.median(listing)
            passes = 2 + 2 * args.samples
            rss_at = {}
            marks = sorted(set(args.memory_marks))
            while passes < marks[-1]:
                scan()
                passes += 1
                if passes in marks:
                    rss_at[passes] = status_kib(daemon.pid, 'VmRSS')
            out['rss_kib_after_pass'] = rss_at
            user.set(NAME, PATH, ADVERT, 'Advertising', dbus.Boolean(True))
            for prop in ('ScannedDevices', 'RemoteCameras'):
                spent, value = timed(lambda: str(user.get(NAME, PATH, SCANNER, prop, timeout=60)), args.samples)
                out[f'{prop}_ms'] = statistics.median(spent)
                out[f'{prop}_bytes'] = len(value.encode())
            if full_set:
                reference = subprocess.Popen([args.reference], env=env.environ, stdout=subprocess.PIPE,
                                             stderr=subprocess.DEVNULL)
                if reference.stdout.readline().strip() != b'READY':
                    raise RuntimeError('bus_reference_server did not start')
                for key in ('scan', 'scan_quiet', 'ScannedDevices', 'RemoteCameras'):
                    size = out[f'{key}_bytes']
                    spent, value = timed(lambda: str(user.call(REFERENCE, REFERENCE_PATH, REFERENCE, 'Text',
                                                               dbus.UInt32(size), timeout=60)), args.samples)
                    assert len(value) == size
                    out[f'reference_{key}_ms'] = statistics.median(spent)

            # ---- auto-scan at a 1 s rate: CPU and messages per period
            names = {'system': system.unique_names_of(daemon.pid)[0], 'user': user.owner(NAME)}
            monitors = {bus: BusMonitor(env.environ[v], env.path('logs', f'autoscan-{bus}.txt'),
                                  [f"sender='{names[bus]}'"])
                        for bus, v in (('system', 'DBUS_SYSTEM_BUS_ADDRESS'), ('user', 'DBUS_SESSION_BUS_ADDRESS'))}
            time.sleep(0.3)
            set_prop(user, *SETTINGS, 'autoScanEnabled', dbus.Boolean(True))
            time.sleep(2.5)  # the first periods find nothing new, as every later one
            hci0 = len(env.hci_calls())
            c0, t0 = cpu_ns(daemon.pid), time.time()
            time.sleep(args.autoscan_s)
            c1, t1 = cpu_ns(daemon.pid), time.time()
            hci1 = len(env.hci_calls())
            out['rss_kib_autoscan'] = status_kib(daemon.pid, 'VmRSS')
            time.sleep(0.3)
            for m in monitors.values():
                m.stop()
            sent = monitors['system'].messages(t0, t1) + monitors['user'].messages(t0, t1)
            periods = sum(1 for _, kind, member in sent if kind == 'mc' and member == 'StartDiscovery')
            if periods == 0:
                raise RuntimeError(f'no auto-scan period in {args.autoscan_s} s')
            out['periods'] = periods
            out['cpu_us_per_period'] = (c1 - c0) / 1000.0 / periods
            out['messages_per_period'] = len(sent) / periods
            by_member = {}
            for _, _, member in sent:
                by_member[member] = by_member.get(member, 0) + 1
            out['messages_by_member'] = {k: v / periods for k, v in sorted(by_member.items())}
            out['hci_commands_per_period'] = (hci1 - hci0) / periods
            out['peak_rss_kib'] = status_kib(daemon.pid, 'VmHWM')
        finally:
            status = daemon.stop()
            if reference is not None:
                reference.terminate()
                reference.wait()
            system.close()
            user.close()
        if status != 0:
            raise RuntimeError(f'the daemon exited with status {status}')
    return out


def run_startup(binary, settings):
    '''Exec to READY=1 alone, in a fresh unit with the given settings.'''
    with TestEnv(sandbox=True, params={'settings': settings}) as env:
        daemon = Daemon(env, binary)
        startup = daemon.startup_ms
        status = daemon.stop()
    if status != 0:
        raise RuntimeError(f'the daemon exited with status {status}')
    return startup


# ------------------------------------------------------------------------------ the report

def summary(values):
    values = [v for v in values if v is not None]
    return {'median': statistics.median(values), 'min': min(values), 'max': max(values), 'runs': len(values)}


def fmt(s, digits=1):
    if s['runs'] == 1 or s['min'] == s['max']:
        return f"{s['median']:.{digits}f}"
    return f"{s['median']:.{digits}f} [{s['min']:.{digits}f}–{s['max']:.{digits}f}]"


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument('--smoke', action='store_true')
    ap.add_argument('--repetitions', type=int)
    ap.add_argument('--devices')
    ap.add_argument('--json', default=os.path.join(ROOT, 'build', 'bench', 'daemon-bench.json'))
    ap.add_argument('--daemon', default=os.environ.get('QB_DAEMON'))
    ap.add_argument('--reference', default=os.environ.get('QB_BENCH_REFERENCE'))
    ap.add_argument('--armhf', help='the daemon cross-built for armhf, run under qemu-arm-static')
    args = ap.parse_args()
    if not args.daemon or not args.reference:
        ap.error('--daemon and --reference (or QB_DAEMON, QB_BENCH_REFERENCE) are needed')
    if args.smoke:
        args.repetitions = args.repetitions or 1
        counts = [int(c) for c in (args.devices or '100').split(',')]
        args.idle_s, args.autoscan_s, args.samples, args.memory_marks = 3.0, 3.0, 3, [10, 20]
    else:
        args.repetitions = args.repetitions or 5
        counts = [int(c) for c in (args.devices or '10,100,1000').split(',')]
        args.idle_s, args.autoscan_s, args.samples, args.memory_marks = 60.0, 20.0, 10, [100, 1000]

    runs = {n: [] for n in counts}
    armhf = {n: [] for n in counts}
    for rep in range(args.repetitions):
        for n in counts:
            log(f'repetition {rep + 1}/{args.repetitions}, {n} devices')
            # idle and memory over many passes once per repetition, with the most devices
            full = n == counts[-1]
            saved = args.memory_marks
            if not full:
                args.memory_marks = [5]
            runs[n].append(run_unit(args, n, args.daemon, full_set=full))
            args.memory_marks = saved
            if n == counts[0]:
                runs[n][-1]['startup_switch_ms'] = run_startup(
                    args.daemon, {'autoScanEnabled': False, 'discoverable': True})
            if args.armhf:
                saved = args.memory_marks
                args.memory_marks = [5]
                armhf[n].append(run_unit(args, n, args.armhf, emulator='qemu-arm-static', full_set=False))
                args.memory_marks = saved

    largest = counts[-1]
    top = runs[largest]
    figures = []  # (name, summary, unit, target text, met or None)

    def add(name, values, unit, target=None, met=None, digits=1):
        s = summary(values)
        figures.append({'figure': name, 'unit': unit, **s, 'target': target,
                        'met': None if args.smoke or met is None else bool(met(s['median'])),
                        'text': fmt(s, digits)})

    for n in counts:
        add(f'auto-scan CPU per period, {n} devices', [r['cpu_us_per_period'] for r in runs[n]], 'µs')
        add(f'D-Bus messages sent per period, {n} devices', [r['messages_per_period'] for r in runs[n]], 'msgs',
            'the two discovery calls', lambda v: v <= 2.0, 2)
        add(f'advertising commands per period, {n} devices', [r['hci_commands_per_period'] for r in runs[n]],
            'cmds')
    for key, label in (('scan', 'Scan, advertising on'), ('scan_quiet', 'Scan, advertising off'),
                       ('ScannedDevices', 'ScannedDevices read'), ('RemoteCameras', 'RemoteCameras read')):
        add(f'{label}, {largest} devices ({top[0][key + "_bytes"]} B)', [r[key + '_ms'] for r in top], 'ms',
            None if key == 'scan' else '≤ 2× the same string carried by the bus', None, 2)
        add(f'  the same string from bus_reference_server', [r['reference_' + key + '_ms'] for r in top], 'ms',
            digits=2)
        if key == 'scan_quiet':
            add('  BlueZ\'s device list fetched by the same client', [r['bluez_list_ms'] for r in top], 'ms',
                digits=2)
            add('  BlueZ\'s StartDiscovery and StopDiscovery from the same client',
                [r['bluez_discovery_ms'] for r in top], 'ms', digits=2)
        ratio = [r[key + '_ms'] / r['reference_' + key + '_ms'] for r in top]
        if key == 'scan':
            # includes the 500 ms the radio is given after advertising stops: not the daemon's cost
            add(f'  ratio (the 500 ms pause after advertising stops included)', ratio, '×', digits=2)
        else:
            add(f'  ratio', ratio, '×', '≤ 2', lambda v: v <= 2.0, 2)
    marks = sorted(set(args.memory_marks))
    add(f'peak RSS, {largest} devices known', [r['peak_rss_kib'] / 1024.0 for r in top], 'MiB', '< 10 MiB',
        lambda v: v < 10.0, 2)
    for m in marks:
        add(f'RSS after pass {m}', [r['rss_kib_after_pass'][m] / 1024.0 for r in top], 'MiB', '< 10 MiB',
            lambda v: v < 10.0, 2)
    growth = [(r['rss_kib_after_pass'][marks[-1]] - r['rss_kib_after_pass'][marks[0]]) * 100.0 /
              r['rss_kib_after_pass'][marks[0]] for r in top]
    add(f'RSS growth, pass {marks[0]} to {marks[-1]}', growth, '%', '< 1 %', lambda v: v < 1.0, 2)
    add('start-up, exec to READY=1', [r['startup_ms'] for r in runs[counts[0]]], 'ms', '< 50 ms',
        lambda v: v < 50.0)
    add('  with the radio to be made discoverable (100 ms settle poll)',
        [r['startup_switch_ms'] for r in runs[counts[0]]], 'ms')
    add('idle wake-ups per minute, auto-scan off', [r['idle_wakeups_per_min'] for r in top], '/min', '0',
        lambda v: v == 0.0)
    add('  messages on either bus meanwhile', [r['idle_bus_messages'] for r in top], 'msgs', digits=0)
    if args.armhf:
        for n in counts:
            add(f'armhf/host CPU per period, {n} devices',
                [a['cpu_us_per_period'] / h['cpu_us_per_period'] for a, h in zip(armhf[n], runs[n])], '×', digits=2)
            add(f'armhf/host RSS during auto-scan, {n} devices',
                [a['rss_kib_autoscan'] / h['rss_kib_autoscan'] for a, h in zip(armhf[n], runs[n])], '×', digits=2)
        add('armhf start-up under qemu-user', [a['startup_ms'] for a in armhf[counts[0]]], 'ms')

    width = max(len(f['figure']) for f in figures)
    print(f"{'figure'.ljust(width)}  {'median [range]':>26}  unit  target")
    for f in figures:
        verdict = '' if f['met'] is None else ('  met' if f['met'] else '  MISSED')
        target = f['target'] or ''
        print(f"{f['figure'].ljust(width)}  {f['text']:>26}  {f['unit']:<4}  {target}{verdict}")
    report = {'mode': 'smoke' if args.smoke else 'full', 'repetitions': args.repetitions, 'devices': counts,
              'machine': {'node': platform.node(), 'cpus': os.cpu_count(), 'kernel': platform.release()},
              'figures': figures, 'runs': {str(n): runs[n] for n in counts},
              'armhf_runs': {str(n): armhf[n] for n in counts} if args.armhf else None}
    os.makedirs(os.path.dirname(os.path.abspath(args.json)), exist_ok=True)
    with open(args.json, 'w') as f:
        json.dump(report, f, indent=1, sort_keys=True, default=str)
    log(f'results in {args.json}')
    missed = [f['figure'] for f in figures if f['met'] is False]
    if missed:
        log('targets missed: ' + '; '.join(missed))
    return 0


if __name__ == '__main__':
    sys.exit(main())
