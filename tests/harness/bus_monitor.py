'''dbus-monitor on one bus, one line per message in its --profile format, for tests and benchmarks that
count what the daemon sends.'''
import subprocess


class BusMonitor:
    '''Records the messages matching `rules` (all of them when there are none) into `path`.'''

    def __init__(self, address, path, rules=()):
        self.path = path
        self.out = open(path, 'w')
        self.proc = subprocess.Popen(['dbus-monitor', '--address', address, '--profile'] + list(rules),
                                     stdout=self.out, stderr=subprocess.DEVNULL)

    def stop(self):
        self.proc.terminate()
        self.proc.wait()
        self.out.close()

    def messages(self, since=None, until=None):
        '''(time, kind, member) of every message seen, the monitor's own hello excepted.'''
        found = []
        with open(self.path) as f:
            for line in f:
                parts = line.rstrip('\n').split('\t')
                if len(parts) < 4 or parts[0] not in ('sig', 'mc', 'mr', 'err'):
                    continue
                when = float(parts[1])
                if (since is not None and when < since) or (until is not None and when > until):
                    continue
                if parts[3] == 'org.freedesktop.DBus' or (len(parts) > 7 and parts[7] == 'NameAcquired'):
                    continue
                found.append((when, parts[0], parts[-1] if parts[0] in ('sig', 'mc') else parts[0]))
        return found

    def calls(self, member):
        '''Times of the method calls of `member`.'''
        return [when for when, kind, name in self.messages() if kind == 'mc' and name == member]
