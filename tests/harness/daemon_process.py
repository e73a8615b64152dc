#!/usr/bin/python3
'''The daemon binary running inside a TestEnv: its log lines (stderr echo, timestamped as they arrive),
its sd_notify messages, and its exit status.'''
import os
import re
import signal
import socket
import subprocess
import threading
import time

from harness.wait import wait_until

_LEVELS = {'emerg': 0, 'alert': 1, 'crit': 2, 'err': 3, 'warning': 4, 'notice': 5, 'info': 6, 'debug': 7}
_LINE = re.compile(r'^(emerg|alert|crit|err|warning|notice|info|debug): (.*)$')


def built_with_asan(binary=None):
    '''Whether the daemon binary carries AddressSanitizer's runtime (and with it LeakSanitizer), whose
    quarantine holds freed memory back on purpose: its RSS says nothing about leaks.'''
    with open(binary or os.environ['QB_DAEMON'], 'rb') as f:
        return b'__asan_init' in f.read()


def rss_kib(pid):
    '''The process's resident set, VmRSS, in KiB.'''
    with open(f'/proc/{pid}/status') as f:
        for line in f:
            if line.startswith('VmRSS:'):
                return int(line.split()[1])
    raise KeyError('VmRSS')


class LogLine:
    def __init__(self, when, priority, text):
        self.when, self.priority, self.text = when, priority, text

    def __repr__(self):
        return f'<{self.priority}> {self.text!r} @{self.when:.3f}'


class NotifySocket:
    '''Receives sd_notify() datagrams on a path given to the daemon as NOTIFY_SOCKET, read as they come, as
    systemd reads them: a socket nobody reads fills up, and the daemon's next sd_notify() then blocks.'''

    def __init__(self, path):
        self.path = path
        if os.path.exists(path):
            os.unlink(path)
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM | socket.SOCK_CLOEXEC)
        self.sock.bind(path)
        self.sock.settimeout(0.1)
        self._received = []   # (monotonic time, text)
        self._lock = threading.Lock()
        self._closing = False
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()

    def _read(self):
        while not self._closing:
            try:
                data = self.sock.recv(4096)
            except socket.timeout:
                continue
            except OSError:
                return
            with self._lock:
                self._received.append((time.monotonic(), data.decode('utf-8', 'replace')))

    @property
    def messages(self):
        '''Every datagram received so far, oldest first: (monotonic time, text).'''
        with self._lock:
            return list(self._received)

    def wait_for(self, line, timeout):
        '''The time a datagram with LINE among its lines came, waiting up to TIMEOUT seconds; None if none.'''
        def came():
            return next((when for when, msg in self.messages if line in msg.split('\n')), None)
        return wait_until(came, timeout, step=0.01)

    def close(self):
        self._closing = True
        self._reader.join()
        self.sock.close()
        if os.path.exists(self.path):
            os.unlink(self.path)


class DaemonProcess:
    def __init__(self, env, binary=None, extra_env=None):
        self.env = env
        self.binary = binary or os.environ['QB_DAEMON']
        self.notify = NotifySocket(env.path('notify.sock'))
        self.lines = []
        self._lock = threading.Lock()
        self.proc = env.popen([self.binary], extra_env=dict(extra_env or {}, NOTIFY_SOCKET=self.notify.path),
                              stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()

    def _read(self):
        for raw in self.proc.stderr:
            text = raw.decode('utf-8', 'replace').rstrip('\n')
            m = _LINE.match(text)
            line = LogLine(time.monotonic(), _LEVELS[m.group(1)], m.group(2)) if m else \
                LogLine(time.monotonic(), None, text)
            with self._lock:
                self.lines.append(line)

    def logged(self):
        '''Every log line so far, oldest first.'''
        with self._lock:
            return list(self.lines)

    def wait_line(self, text, timeout, count=1):
        '''The `count`-th log line equal to `text`, waiting up to `timeout` seconds; None if it never came.'''
        def came():
            hits = [ln for ln in self.logged() if ln.text == text]
            return hits[count - 1] if len(hits) >= count else None
        return wait_until(came, timeout, step=0.01)

    def wait_line_prefix(self, prefix, timeout):
        '''The first log line starting with `prefix`, waiting up to `timeout` seconds; None if none came.'''
        return wait_until(lambda: next((ln for ln in self.logged() if ln.text.startswith(prefix)), None), timeout,
                          step=0.01)

    def texts(self):
        return [ln.text for ln in self.logged()]

    def count(self, text):
        return self.texts().count(text)

    def stop(self, sig=signal.SIGTERM, timeout=10):
        '''Stops the daemon and returns its exit status.'''
        if self.proc.poll() is None:
            # the daemon runs under sandbox.sh's exec, so this pid is the daemon itself
            self.proc.send_signal(sig)
        try:
            rc = self.proc.wait(timeout=timeout)
        except subprocess.TimeoutExpired:
            self.proc.kill()
            rc = self.proc.wait()
        self._reader.join(timeout=5)
        self.notify.close()
        return rc
