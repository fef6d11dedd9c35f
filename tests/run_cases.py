#!/usr/bin/python3
"""Runs tables of end-to-end cases: the kepclient binary, started as users start it, against kep-sim
owning com.calyra.kep on a private bus, scripted through kep-sim's control interface.

A case is a block of lines; a blank line ends it, a line starting with # is a comment.
  $ words                 one run: shell words, or "$ [...]" a Python list (bytes, expressions);
                          "$ sim ..." runs kep-sim instead, where {kepclient} stands for the client,
                          {bus} for the case's bus, {scenario} and {recording} for the runner's files.
                          Several $ lines run the same case once each; none runs the client bare.
  + Property value        the service's property before the run (GVariant text, any type)
  ! Property [Error msg]  reads of the property answer that error; with no error, never answer
  ~ Signal (args,)        once the client listens for Signal, the service emits it ("~!": a stranger does)
  ~+ Signal (args,)       one more signal of the burst the "~" line above starts: once the client listens
                          for each of them, the service emits them all back to back (kep-sim's
                          EmitSignals) while the client is stopped, so that they reach it in one read
  ~ restart               once the client listens, the service restarts
  ~ drop-bus              once the client listens, the bus goes away
  ~ call Method (args,)   once the client listens, the runner calls Method of kep-sim's control interface
  ~ signal NAME           once the client listens, the run's program gets SIGNAME
                          In a "$ sim" run on {bus}, "~" lines play once the service has received a call.
  & clock S               a fast clock, the run ending after S of its seconds
  & prog NAME             the client started as NAME
  & no-argv               the client started with no argument vector
  & no-service            nobody owns com.calyra.kep
  & recapture             the service serves what kep-sim's capture read of it
  & scenario TEXT         kep-sim's scenario ("\\n" a line break)
  & exit N                the run's exit status (otherwise 0)
  | text                  a line of standard error, ⇥ a tab, · a blank ("| @name": the block "= @name"
                          defines with its own | lines)
  > Member sig (body)     a call the service received, in order ("> !": refused); none listed, none made
Standard output stays empty in every run.
"""
import argparse
import contextlib
import ctypes
import functools
import glob
import os
import select
import shlex
import shutil
import signal
import subprocess
import sys
import tempfile
import time

from gi.repository import Gio, GLib

# The programs under test, by absolute path: cases change directory. Under emulation the armhf client runs
# through one wrapper program, whose path is taken whole.
CLIENT = os.path.abspath(os.environ.get('KEPCLIENT_UNDER_TEST') or os.environ['KEPCLIENT'])
WRAPPER = [os.environ['KEPCLIENT_WRAPPER']] if os.environ.get('KEPCLIENT_WRAPPER') else []
# A whole emulated system (KEP_EMULATED set): the programs run as on the device, only slower.
EMULATED = bool(os.environ.get('KEP_EMULATED'))
SIM = os.path.abspath(os.environ['KEPSIM'])

# One directory for the whole run: the bus's socket, the scenario, the recording, the client's output.
WORK = tempfile.mkdtemp(prefix='kep-cases.')
SCENARIO = os.path.join(WORK, 'scenario')
RECORDING = os.path.join(WORK, 'recording')
DEFAULT_SCENARIO = "{'silent': <true>}"

# What the runner calls on the bus: (bus name, object path, interface).
KEP_NAME = 'com.calyra.kep'
KEP_PATH = '/com/calyra/kep'
KEP_INTERFACE = 'com.calyra.kep'
SIM_CONTROL = (KEP_NAME, KEP_PATH, 'com.calyra.kep.Sim')
BUS_DAEMON = ('org.freedesktop.DBus', '/org/freedesktop/DBus', 'org.freedesktop.DBus')
BUS_STATS = ('org.freedesktop.DBus', '/org/freedesktop/DBus', 'org.freedesktop.DBus.Debug.Stats')
# scan and wps both listen for ScanResults, wps last of all and after its call
LAST_LISTENED_SIGNAL = 'ScanResults'

# Every child dies with the runner, whatever happens; one with no argument vector too.
WITH_US = ['setpriv', '--pdeathsig', 'KILL']
PR_SET_PDEATHSIG = 1  # from <linux/prctl.h>

# Limits, in seconds.
CALL_TIMEOUT_MS = 5000  # one call of the runner's on the bus
RUN_LIMIT = 120  # one run of the client or of kep-sim's command line
WAIT_LIMIT = 10  # a program to start, the client to listen, the bus to free a name
POLL_INTERVAL = 0.002
# The fast clock runs CLOCK_SPEED times as fast as the real one. A run on it ends after at least its S
# seconds and fewer than S * CLOCK_SLOW_FACTOR + CLOCK_SLOW_START: room for a slow start under the
# sanitizers.
CLOCK_SPEED = 60
CLOCK_SLOW_FACTOR = 4
CLOCK_SLOW_START = 120

SHOWN_WORDS_CHARS = 60  # of a run's words in its result line


def until(check, what):
    """Waits until check() holds, asking again every POLL_INTERVAL, at most WAIT_LIMIT seconds."""
    deadline = time.monotonic() + WAIT_LIMIT
    while not check():
        assert time.monotonic() < deadline, 'gave up waiting for ' + what
        time.sleep(POLL_INTERVAL)


def start(command):
    """Starts a program whose first line on standard output says it is ready; returns it and the line."""
    process = subprocess.Popen(WITH_US + command, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
    readable = select.select([process.stdout], [], [], WAIT_LIMIT)[0]
    assert readable, 'gave up waiting for %s to start' % command[0]
    return process, process.stdout.readline().decode().strip()


def stop(process):
    process.kill()
    process.wait()


def write_file(path, content):
    mode = 'wb' if isinstance(content, bytes) else 'w'
    with open(path, mode) as written:
        written.write(content)


class Bus:
    """The private bus of the run: its dbus-daemon, the runner's own connection to it, and the latest
    kep-sim started on it (perhaps ended since)."""

    def __init__(self):
        self.daemon, self.address = start(['dbus-daemon', '--session', '--nofork', '--print-address',
                                           '--address=unix:tmpdir=' + WORK])
        flags = Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION
        self.conn = Gio.DBusConnection.new_for_address_sync(self.address, flags, None, None)
        self.sim = None

    def call(self, method, args=None, target=SIM_CONTROL):
        """Calls a method of kep-sim's control interface, or of target, with args, a tuple variant; gives
        the reply's items."""
        name, path, interface = target
        reply = self.conn.call_sync(name, path, interface, method, args, None, Gio.DBusCallFlags.NONE,
                                    CALL_TIMEOUT_MS, None)
        return reply.unpack()

    def listening(self, member):
        """Whether some connection on the bus has a match rule for the signal member."""
        rules_by_connection = self.call('GetAllMatchRules', target=BUS_STATS)[0]
        wanted = "member='%s'" % member
        return any(wanted in rule for rules in rules_by_connection.values() for rule in rules)

    def wait_until_listening(self, member):
        until(lambda: self.listening(member), 'the client to listen for ' + member)

    def name_is_free(self):
        return not self.call('NameHasOwner', GLib.Variant('(s)', (KEP_NAME,)), BUS_DAEMON)[0]

    def serve(self):
        """A fresh kep-sim on the bus, playing the scenario."""
        self.stop_service()
        self.sim = start([SIM, '--address', self.address, '--scenario', SCENARIO])[0]

    def stop_service(self):
        if self.sim is None:
            return
        stop(self.sim)
        # the bus frees the name once it has read the end of the connection
        until(self.name_is_free, 'the name to be free')

    def close(self):
        if self.sim is not None:
            stop(self.sim)
        stop(self.daemon)

    def prepare(self, case):
        """The case's service, as its lines set it up, or none."""
        if 'no-service' in case:
            self.stop_service()
            return
        self.serve()
        for line in case.get('+', []):
            name, value = line.split(' ', 1)
            parsed = GLib.Variant.parse(None, value, None, None)
            self.call('SetProperty', GLib.Variant('(sv)', (name, parsed)))
        for line in case.get('!', []):
            fields = line.split(' ', 2) + ['', '']  # no error or no message: an empty one
            self.call('FailReads', GLib.Variant('(sss)', tuple(fields[:3])))
        if 'recapture' in case:
            capture = subprocess.run([SIM, 'capture', '--address', self.address], capture_output=True,
                                     check=True)
            write_file(SCENARIO, capture.stdout)
            self.serve()


def exec_without_argv(env):
    """Runs in the child before its exec: no process module of the language execs with no argument vector.
    Linux 5.18 and later hand the program one empty argument instead; older kernels, none at all."""
    libc = ctypes.CDLL(None)
    variables = [b'%s=%s' % (name.encode(), value.encode()) for name, value in env.items()]
    envp = (ctypes.c_char_p * (len(variables) + 1))(*variables, None)
    argv = (ctypes.c_char_p * 1)(None)
    libc.prctl(PR_SET_PDEATHSIG, int(signal.SIGKILL))
    libc.execve(CLIENT.encode(), argv, envp)


def client_env(bus, case):
    """The environment of a run: the runner's own without Qt's settings and the session bus, the case's bus
    as the system bus, and the fast clock if the case has one."""
    env = {name: value for name, value in os.environ.items()
           if not name.startswith('QT_') and name != 'DBUS_SESSION_BUS_ADDRESS'}
    env['DBUS_SYSTEM_BUS_ADDRESS'] = bus.address
    env['KEPSIM'] = SIM
    env['LC_ALL'] = 'C.UTF-8'
    # libfaketime is preloaded ahead of the sanitizers' runtime
    env['ASAN_OPTIONS'] = env.get('ASAN_OPTIONS', '') + ':verify_asan_link_order=0'
    if 'clock' in case:  # libfaketime itself: the faketime program would fork the client off
        env['FAKETIME'] = '+0 x%d' % CLOCK_SPEED
        env['LD_PRELOAD'] = glob.glob('/usr/lib/*/faketime/libfaketime.so.1')[0]
    return env


def listened_member(text):
    """The signal a "~" line waits for the client to listen for."""
    first = text.split(' ', 1)[0]
    if first in ('restart', 'drop-bus', 'call', 'signal'):
        return LAST_LISTENED_SIGNAL
    return first


def check_no_network_library(client):
    """Only the IPv4 test links QtNetwork: the client, waiting for the service, has not loaded it."""
    with open('/proc/%d/maps' % client.pid) as maps:
        assert 'libQt5Network' not in maps.read(), 'the waiting client maps QtNetwork'


def parse_member(text):
    """A signal's or method's name and its arguments, a tuple, from "Member (args,)"."""
    member, args_text = text.split(' ', 1)
    return member, GLib.Variant.parse(None, args_text, None, None)


def unpacked(args):
    """A tuple's items, each as the variant EmitSignal and EmitSignals take them in."""
    return [args.get_child_value(index) for index in range(args.n_children())]


def stopped(client):
    """Whether the client has stopped (or ended), its state left for Popen to collect."""
    flags = os.WSTOPPED | os.WEXITED | os.WNOWAIT | os.WNOHANG
    return os.waitid(os.P_PID, client.pid, flags) is not None


def send_burst(bus, client, burst):
    """The service's signals back to back, while the client is held: the bus has delivered them all to the
    client's socket by the time kep-sim answers EmitSignals, after the last of them, so the client reads
    them in one go once it goes on."""
    os.kill(client.pid, signal.SIGSTOP)
    try:
        until(lambda: stopped(client), 'the client to stop')
        bus.call('EmitSignals', GLib.Variant('(a(sav))', (burst,)))
    finally:
        os.kill(client.pid, signal.SIGCONT)


def send(bus, client, kind, texts):
    """What a "~" line and its "~+" lines do once the client listens."""
    first = texts[0]
    if first == 'restart':
        bus.serve()
    elif first == 'drop-bus':
        bus.daemon.kill()
    elif first.startswith('call '):
        member, args = parse_member(first.split(' ', 1)[1])
        bus.call(member, args)
    elif kind == '~!':  # from the runner's own connection, on the service's path and interface
        member, args = parse_member(first)
        bus.conn.emit_signal(None, KEP_PATH, KEP_INTERFACE, member, args)
    elif len(texts) == 1:
        member, args = parse_member(first)
        bus.call('EmitSignal', GLib.Variant('(sav)', (member, unpacked(args))))
    else:
        burst = []
        for text in texts:
            member, args = parse_member(text)
            burst.append((member, unpacked(args)))
        send_burst(bus, client, burst)


def play(bus, case, process, ready, check=None):
    """What the case's "~" lines do during the run of process, each once ready(text) has waited for its
    moment; check(process) before each."""
    for kind, texts in case.get('~', []):
        for text in texts:
            ready(text)
        if check:
            check(process)
        if texts[0].startswith('signal '):
            os.kill(process.pid, signal.Signals['SIG' + texts[0].split(' ', 1)[1]])
        else:
            send(bus, process, kind, texts)


def client_listens(bus):
    """The moment of a "~" line in a run of the client: it listens for the line's signal."""
    return lambda text: bus.wait_until_listening(listened_member(text))


def service_called(bus):
    """The moment of a "~" line in a run of kep-sim: the service has received a call."""
    return lambda text: until(lambda: bus.call('Calls')[0], 'the service to be called')


def run_program(command, env, case, bus, ready, check=None, preexec=None):
    """One run, in a process group of its own that goes with it, however it ends; gives its exit status,
    standard output and standard error, and how long it took."""
    with open(os.path.join(WORK, 'out'), 'w+b') as out, open(os.path.join(WORK, 'err'), 'w+b') as err:
        started = time.monotonic()
        process = subprocess.Popen(WITH_US + command, env=env, stdin=subprocess.DEVNULL, stdout=out,
                                   stderr=err, preexec_fn=preexec, start_new_session=True)
        try:
            play(bus, case, process, ready, check)
            status = process.wait(timeout=RUN_LIMIT)
        finally:
            with contextlib.suppress(ProcessLookupError):
                os.killpg(process.pid, signal.SIGKILL)
            process.wait()
        seconds = time.monotonic() - started
        out.seek(0)
        err.seek(0)
        return status, out.read(), err.read().decode('utf-8', 'replace'), seconds


def run_client(bus, case, words):
    env = client_env(bus, case)
    prog = CLIENT
    if 'prog' in case:  # another name: a link to the client
        prog = os.path.join(WORK, case['prog'])
        if not os.path.lexists(prog):
            os.symlink(CLIENT, prog)
    without_argv = None
    if 'no-argv' in case:
        without_argv = functools.partial(exec_without_argv, env)
    status, out, err, seconds = run_program(WRAPPER + [prog] + words, env, case, bus, client_listens(bus),
                                            check_no_network_library, without_argv)
    if 'clock' in case:
        clock_seconds = float(case['clock'])
        ended_after = seconds * CLOCK_SPEED
        assert clock_seconds <= ended_after < clock_seconds * CLOCK_SLOW_FACTOR + CLOCK_SLOW_START, \
            'ended after %.1f of its seconds, not %s' % (ended_after, case['clock'])
    return status, out, err, prog


def run_sim(bus, case, words):
    """kep-sim's command line, the runner's names in it replaced."""
    names = {'{scenario}': [SCENARIO], '{recording}': [RECORDING], '{bus}': [bus.address],
             '{kepclient}': WRAPPER + [CLIENT]}
    if '{bus}' in words:
        bus.prepare(case)
    arguments = []
    for word in words[1:]:
        arguments.extend(names.get(word, [word]))
    env = client_env(bus, case)
    status, out, err, _ = run_program([SIM] + arguments, env, case, bus, service_called(bus))
    return status, out, err, ''


def received_calls(bus):
    """The calls kep-sim received, written as the case's ">" lines write them."""
    calls = []
    for member, signature, body, refused in bus.call('Calls')[0]:
        mark = '!' if refused else ''
        calls.append('%s%s %s %s' % (mark, member, signature or '-', body))
    return calls


def expected_stderr(case, blocks, prog):
    lines = []
    for line in case.get('|', []):
        if line.startswith('@'):
            lines.extend(blocks.get(line[1:], []))
        else:
            lines.append(line)
    text = ''.join(line.replace('⇥', '\t').replace('·', ' ') + '\n' for line in lines)
    quoted_prog = prog.replace('\\', '\\\\').replace('"', '\\"')  # as the client quotes its name
    for name, path in (('{prog}', quoted_prog), ('{scenario}', SCENARIO), ('{recording}', RECORDING)):
        text = text.replace(name, path)
    return text


def run(bus, case, blocks, words):
    """One run of a case; an AssertionError says what differed."""
    write_file(SCENARIO, case.get('scenario', DEFAULT_SCENARIO).replace('\\n', '\n'))
    calls = []
    if words[:1] == ['sim']:
        status, out, err, prog = run_sim(bus, case, words)
    else:
        bus.prepare(case)
        status, out, err, prog = run_client(bus, case, words)
        if 'no-service' not in case and ('~', ['drop-bus']) not in case.get('~', []):
            calls = received_calls(bus)
    problems = []
    if status != int(case.get('exit', 0)) or out:
        problems.append('exit status %d, standard output %r' % (status, out))
    comparisons = [('standard error', err, expected_stderr(case, blocks, prog)),
                   ('calls', '\n'.join(calls), '\n'.join(case.get('>', [])))]
    for what, seen, wanted in comparisons:
        if seen != wanted:
            problems.append('%s:\n%s\nexpected:\n%s' % (what, seen, wanted))
    assert not problems, '\n'.join(problems)


def parse(path):
    """A table's cases, each a dict of its lines by tag, and the named blocks of "|" lines it defines."""
    with open(path, encoding='utf-8') as table:
        lines = table.read().splitlines()
    entries = []
    current = None
    for number, line in enumerate(lines + [''], 1):
        if not line.strip():
            current = None
            continue
        if line.startswith('#'):
            continue
        if current is None:
            current = {'line': number, 'text': ''}
            entries.append(current)
        current['end'] = number
        current['text'] += line + '\n'
        tag, _, text = line.partition(' ')
        if tag == '&':
            option, _, value = text.partition(' ')
            current[option] = value
        elif tag == '~+':
            bursts = current.get('~', [])
            if not bursts or bursts[-1][0] != '~' or ' ' not in bursts[-1][1][0]:
                raise ValueError('%s:%d: "~+" goes on from a "~" line of the service\'s signals'
                                 % (path, number))
            bursts[-1][1].append(text)
        elif tag.startswith('~'):  # a signal keeps its tag: ~ the service's, ~! a stranger's
            current.setdefault('~', []).append((tag, [text]))
        else:
            current.setdefault(tag, []).append(text)
    cases = []
    blocks = {}
    for entry in entries:
        if '=' in entry:
            blocks[entry['='][0][1:]] = entry['|']
        else:
            cases.append(entry)
    return cases, blocks


def command_words(command_line):
    if command_line.startswith('['):
        return eval(command_line, {'__builtins__': {}})
    return shlex.split(command_line)


def runs(tables, words):
    """Every run of the cases asked for: the table's name, the case, the table's blocks and the run's words.
    A table is named by its path, or PATH:LINE for the case with that line; `words`, when given, picks the
    cases with a line that holds them."""
    for table in tables:
        path, _, line = table.partition(':')
        cases, blocks = parse(path)
        for case in cases:
            if line and not case['line'] <= int(line) <= case['end']:
                continue
            if words and words not in case['text']:
                continue
            for command_line in case.get('$', ['']):
                yield os.path.basename(path), case, blocks, command_words(command_line)


def skipped_under_emulation(case, words):
    """qemu-user keeps the real clock and an argument vector of its own; a run of kep-sim without the
    client has nothing to emulate. On an emulated system the fast clock does not shorten the client's
    waits."""
    if EMULATED and 'clock' in case:
        return True
    if not WRAPPER:
        return False
    if {'clock', 'no-argv'} & case.keys():
        return True
    return words[:1] == ['sim'] and '{kepclient}' not in words


def main():
    arguments = argparse.ArgumentParser(description='Runs tables of end-to-end cases, or some of them.')
    arguments.add_argument('tables', nargs='+', metavar='TABLE[:LINE]', help='a table, or its case at LINE')
    arguments.add_argument('-k', dest='words', default='', help='only the cases with a line that holds WORDS')
    asked = arguments.parse_args()
    counts = {'ok': 0, 'FAIL': 0, 'skipped': 0}
    bus = Bus()
    try:
        for table, case, blocks, words in runs(asked.tables, asked.words):
            where = '%s:%d %s' % (table, case['line'], shlex.join(map(str, words))[:SHOWN_WORDS_CHARS])
            if skipped_under_emulation(case, words):
                counts['skipped'] += 1
                continue
            result = 'ok'
            detail = ''
            try:
                run(bus, case, blocks, words)
            except (AssertionError, GLib.Error, subprocess.SubprocessError) as error:
                result = 'FAIL'
                detail = '\n' + str(error)
            counts[result] += 1
            print(result, where, detail)
            if bus.daemon.poll() is not None:  # the case took the bus away
                bus.close()
                bus = Bus()
    finally:
        bus.close()
        shutil.rmtree(WORK)
    print('%(ok)d passed, %(FAIL)d failed, %(skipped)d skipped' % counts)
    if counts['FAIL']:
        return 1
    return 0


if __name__ == '__main__':
    sys.exit(main())
