#!/usr/bin/python3
"""kep-sim record over sessions cut short, long or fast: what the file holds when kep-sim is killed or
interrupted, when the service's bus goes away, when the closing state capture is interrupted; the pace of a
storm of signals, and record's memory over many calls. Each check has a bus of its own with kep-sim serving
the service on it. Every wait is bounded."""
import os
import re
import select
import shutil
import signal
import subprocess
import sys
import tempfile

from gi.repository import Gio, GLib

from processes import WAIT_LIMIT, WITH_US, start, stop, until

SIM = os.environ['KEPSIM']
CLIENT = os.environ['KEPCLIENT']

WORK = tempfile.mkdtemp(prefix='kep-record.')
RECORDING = os.path.join(WORK, 'recording.gv')

KEP = ('com.calyra.kep', '/com/calyra/kep')
CALL_TIMEOUT_MS = 5000
RUN_LIMIT = 120  # one run of kep-sim
INTERRUPTED = 130

# The storm: WPS scan passes sent back to back, and how far its replay may be from its recorded pace.
STORM_PASSES = 20000
PACE_TOLERANCE = 0.1
# Memory: Get calls of a Details of this many entries, each on a connection of its own as a client's run,
# and how much more record may take at the end than after the first few.
DETAILS_ENTRIES = 300
FIRST_CALLS = 100
ALL_CALLS = 1000
MEMORY_GROWTH_LIMIT_KB = 3 * 1024
# A call answered once the service's bus has gone is answered at once: well within this.
AT_ONCE_MS = 1000
PROPERTIES = ['Connected', 'Details', 'LogLevel', 'Mode', 'SoftApModeSettings', 'WiredIpSettings',
              'WirelessIpSettings', 'WirelessNetworks']


def gone(pid):
    try:
        os.kill(pid, 0)
    except ProcessLookupError:
        return True
    with open('/proc/%d/stat' % pid) as stat:  # ended, not yet waited for
        return stat.read().rsplit(')', 1)[1].split()[0] == 'Z'


class Service:
    """A bus of the test's own, with kep-sim serving the service on it."""

    def __init__(self, scenario="{'silent': <true>}"):
        self.scenario = os.path.join(WORK, 'scenario.gv')
        with open(self.scenario, 'w') as written:
            written.write(scenario)
        self.daemon, self.address = start(['dbus-daemon', '--session', '--nofork', '--print-address',
                                           '--address=unix:tmpdir=' + WORK])
        self.sim = start([SIM, '--address', self.address, '--scenario', self.scenario])[0]
        flags = Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION
        self.conn = Gio.DBusConnection.new_for_address_sync(self.address, flags, None, None)

    def control(self, method, signature='()', *args):
        parameters = GLib.Variant(signature, args)
        return self.conn.call_sync(KEP[0], KEP[1], 'com.calyra.kep.Sim', method, parameters, None,
                                   Gio.DBusCallFlags.NONE, CALL_TIMEOUT_MS, None).unpack()

    def close(self):
        """Stops both, once."""
        if self.daemon.poll() is None:
            stop(self.sim)
            stop(self.daemon)


def record(service, command, *options):
    """kep-sim record of the command, started."""
    words = [SIM, 'record', '--address', service.address, '--output', RECORDING] + list(options)
    return subprocess.Popen(WITH_US + words + ['--'] + command, stdin=subprocess.DEVNULL,
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)


def sim(*words):
    done = subprocess.run(WITH_US + [SIM] + list(words), stdin=subprocess.DEVNULL, capture_output=True,
                          text=True, timeout=RUN_LIMIT)
    return done.returncode, done.stderr


def recording():
    with open(RECORDING) as recorded:
        return recorded.read()


def expect(what, seen, wanted):
    assert seen == wanted, '%s:\n%s\nexpected:\n%s' % (what, seen, wanted)


def in_work(name):
    return os.path.join(WORK, name)


def check_killed():
    """SIGKILL mid-session: the file holds the steps so far, and check and a replay take it."""
    service = Service()
    try:
        ready = in_work('ready')
        status = '"$0" status; "$0" status; touch "$1"; exec sleep %d' % RUN_LIMIT
        recorder = record(service, ['sh', '-c', status, CLIENT, ready])
        until(lambda: os.path.exists(ready), 'the two runs of status')
        recorder.kill()
        _, printed = recorder.communicate(timeout=WAIT_LIMIT)
        expect('record\'s standard error', printed.count('Property:  "State"  ->  "connected"\n'), 2)
        cut_short = 'kep-sim: %s was cut short: its 2 whole steps are played\n' % RECORDING
        expect('check', sim('--scenario', RECORDING, 'check'), (0, cut_short))
        service.control('SetProperty', '(sv)', 'Details', GLib.Variant('a{sv}', {}))  # not what is played
        replayed = sim('--scenario', RECORDING, 'run', '--', 'sh', '-c', '"$0" status; "$0" status', CLIENT)
        expect('the replay', replayed, (0, cut_short + printed))
    finally:
        service.close()


def check_interrupted():
    """SIGINT: COMMAND and what it started end, and the recording is whole."""
    service = Service()
    try:
        pids = in_work('pids')
        script = '"$0" wps & echo $! >"$1"; echo $$ >>"$1"; wait; echo after'
        recorder = record(service, ['sh', '-c', script, CLIENT, pids])
        until(lambda: "'WpsPbc'" in recording(), 'the client to call WpsPbc')
        recorder.send_signal(signal.SIGINT)
        printed = recorder.communicate(timeout=WAIT_LIMIT)[1]
        said = 'kep-sim: 1 secret removed; --keep-secrets keeps them\n'
        expect('status and standard error', (recorder.returncode, printed), (INTERRUPTED, said))
        with open(pids) as written:
            for pid in map(int, written.read().split()):
                assert gone(pid), 'process %d of COMMAND still runs' % pid
        expect('check', sim('--scenario', RECORDING, 'check'), (0, ''))
        state = "'WirelessNetworks': <{'Workshop': <{'wpa_psk': <'[removed secret 1]'>}>}>\n}\n"
        assert recording().endswith(state), 'the recording does not end with the state'
    finally:
        service.close()


def check_service_gone():
    """The service's bus goes away: said once, and later calls are answered at once, and recorded so."""
    service = Service()
    try:
        ready = in_work('ready-fifo')
        go = in_work('go-fifo')
        os.mkfifo(ready)
        os.mkfifo(go)
        script = '"$0" status >/dev/null 2>&1; echo >"$1"; read line <"$2"; "$0" status; "$0" loglevel'
        recorder = record(service, ['sh', '-c', script, CLIENT, ready, go], '--keep-secrets')
        with open(ready) as fifo:
            assert select.select([fifo], [], [], WAIT_LIMIT)[0], 'gave up waiting for the first status'
        service.close()
        with open(go, 'w') as fifo:
            fifo.write('go\n')
        printed = recorder.communicate(timeout=RUN_LIMIT)[1]
        said = ('kep-sim: the service\'s bus has gone away; calls are answered with '
                'org.freedesktop.DBus.Error.Disconnected\n')
        left_out = ''.join('kep-sim: %s left out: The connection is closed\n' % name for name in PROPERTIES)
        expect('record', (recorder.returncode, printed), (0, said + 'Current log level:  0\n' + left_out))
        answers = re.findall(r"'args': <\('com.calyra.kep', '(\w+)'\)>, 'reply-ms': <(\d+)>, 'error': "
                             r"<'org.freedesktop.DBus.Error.Disconnected'>", recording())
        expect('calls answered as disconnected', [name for name, _ in answers], ['Details', 'LogLevel'])
        assert all(int(ms) < AT_ONCE_MS for _, ms in answers), answers
    finally:
        service.close()


def check_capture_interrupted():
    """SIGINT during the closing state capture ends it: the properties are named, the recording whole."""
    service = Service()
    try:
        for name in PROPERTIES:
            service.control('FailReads', '(sss)', name, '', '')
        service.control('ClearCalls')
        recorder = record(service, ['true'], '--keep-secrets')
        until(lambda: len(service.control('Calls')[0]) == len(PROPERTIES), 'the state to be asked for')
        recorder.send_signal(signal.SIGINT)
        printed = recorder.communicate(timeout=WAIT_LIMIT)[1]
        left_out = ''.join('kep-sim: %s left out: interrupted\n' % name for name in PROPERTIES)
        expect('record', (recorder.returncode, printed), (130, left_out))
        expect('the recording', recording(), "{\n  'dialog': <@aa{sv} [\n  ]>\n}\n")
    finally:
        service.close()


def timed_wps(scenario_words, out):
    """kep-sim's command line with COMMAND a wps run that writes its length, in nanoseconds, to `out`."""
    script = 'start=$(date +%s%N); "$0" wps 2>/dev/null; end=$(date +%s%N); echo $((end - start)) >"$1"'
    return scenario_words + ['--', 'sh', '-c', script, CLIENT, out]


def read_number(path):
    with open(path) as written:
        return int(written.read())


def check_storm_pace():
    """Signals sent back to back replay at the pace they came: their delays add up."""
    storm = "{'wps': <{'scan-passes': <uint32 %d>, 'step-ms': <uint32 0>, 'error': <'PBC overlap'>}>}"
    service = Service(storm % STORM_PASSES)
    try:
        recorded_ns = in_work('recorded-ns')
        recorder = subprocess.run(WITH_US + timed_wps([SIM, 'record', '--address', service.address,
                                                       '--output', RECORDING, '--keep-secrets'], recorded_ns),
                                  capture_output=True, timeout=RUN_LIMIT)
        expect('record', recorder.returncode, 0)
    finally:
        service.close()
    replayed_ns = in_work('replayed-ns')
    replay = subprocess.run(WITH_US + timed_wps([SIM, '--scenario', RECORDING, 'run'], replayed_ns),
                            capture_output=True, timeout=RUN_LIMIT)
    expect('replay', replay.returncode, 0)
    recorded = read_number(recorded_ns)
    replayed = read_number(replayed_ns)
    assert abs(replayed - recorded) <= PACE_TOLERANCE * recorded, \
        'the storm took %.2f s, its replay %.2f s' % (recorded / 1e9, replayed / 1e9)


# COMMAND of the memory check: Get Details calls, each on a connection of its own; kep-sim's peak memory
# after the first ones and after all, in kB, written to the file named.
CALLER = '''
import os, sys
from gi.repository import Gio, GLib
address = os.environ['DBUS_SYSTEM_BUS_ADDRESS']
flags = Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION
peaks = []
for call in range(1, int(sys.argv[3]) + 1):
    conn = Gio.DBusConnection.new_for_address_sync(address, flags, None, None)
    details = GLib.Variant('(ss)', ('com.calyra.kep', 'Details'))
    conn.call_sync('com.calyra.kep', '/com/calyra/kep', 'org.freedesktop.DBus.Properties', 'Get', details,
                   None, Gio.DBusCallFlags.NONE, 5000, None)
    conn.close_sync(None)
    if call in (int(sys.argv[2]), int(sys.argv[3])):
        with open('/proc/%d/status' % os.getppid()) as status:
            peaks.append(status.read().split('VmHWM:')[1].split()[0])
with open(sys.argv[1], 'w') as out:
    out.write(' '.join(peaks))
'''


def check_memory():
    """Record's memory does not grow with the session, whatever the size of the replies."""
    service = Service()
    try:
        entries = {}
        for index in range(DETAILS_ENTRIES):
            entries['entry%d' % index] = GLib.Variant('s', 'value %d' % index)
        service.control('SetProperty', '(sv)', 'Details', GLib.Variant('a{sv}', entries))
        peaks = in_work('peaks')
        command = [sys.executable, '-c', CALLER, peaks, str(FIRST_CALLS), str(ALL_CALLS)]
        recorder = record(service, command)
        recorder.communicate(timeout=RUN_LIMIT)
        expect('record', recorder.returncode, 0)
        with open(peaks) as written:
            first, last = map(int, written.read().split())
        assert last - first <= MEMORY_GROWTH_LIMIT_KB, \
            'record grew from %d kB after %d calls to %d kB after %d' % (first, FIRST_CALLS, last, ALL_CALLS)
    finally:
        service.close()


def main():
    checks = [check_killed, check_interrupted, check_service_gone, check_capture_interrupted,
              check_storm_pace, check_memory]
    # Under the sanitizers kep-sim keeps freed memory aside and runs several times slower.
    sanitized = os.environ.get('KEP_SANITIZED') == 'ON'
    failed = 0
    skipped = 0
    try:
        for check in checks:
            if sanitized and check in (check_storm_pace, check_memory):
                skipped += 1
                print('%s: skipped: the sanitizers change time and memory' % check.__name__)
                continue
            try:
                check()
                print('ok', check.__name__)
            except (AssertionError, GLib.Error, subprocess.SubprocessError) as error:
                failed += 1
                print('FAIL', check.__name__, '\n' + str(error))
    finally:
        shutil.rmtree(WORK)
    print('%d passed, %d failed, %d skipped' % (len(checks) - failed - skipped, failed, skipped))
    if failed:
        return 1
    return 0


if __name__ == '__main__':
    sys.exit(main())
