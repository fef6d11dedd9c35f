#!/usr/bin/python3
"""Runs tables of end-to-end cases: the kepclient binary, started as users start it, against kep-sim owning
com.calyra.kep on a private bus, scripted through kep-sim's control interface. A case is a block of lines:
  $ words                 one run: shell words, "$ [...]" a Python list (bytes, expressions), "$ sim ..." kep-sim,
                          where {kepclient} is the client, {bus} the case's bus, {scenario} and {recording} files
  + Property value        the service's property before the run (GVariant text, any type)
  ! Property [Error msg]  reads of the property answer that error; with no error, never answer
  ~ Signal (args,)        once the client listens for Signal, the service emits it ("~!": a stranger does);
                          "~ restart" / "~ drop-bus": the service restarts / the bus goes away meanwhile
  & clock S | prog NAME | no-argv | no-service | recapture | scenario TEXT | exit N | pace: a fast clock, ending
                          after S of its seconds | started as NAME | with no argument vector | no service | served
                          from kep-sim's capture | kep-sim's scenario | exit status | each run of the case takes
                          as long as its first, within 10 % or 0.1 s
  | text                  a line of standard error, ⇥ a tab, · a blank ("| @name": the block "= @name" defines)
  > Member sig (body)     a call the service received, in order ("> !": refused); none listed, none made
"""
import ctypes, glob, os, select, shlex, shutil, subprocess, sys, tempfile, time
from gi.repository import Gio, GLib

CLIENT = os.environ.get('KEPCLIENT_UNDER_TEST') or os.environ['KEPCLIENT']
WRAPPER = [os.environ['KEPCLIENT_WRAPPER']] if os.environ.get('KEPCLIENT_WRAPPER') else []  # one program's path
SIM = os.environ['KEPSIM']
WORK = tempfile.mkdtemp(prefix='kep-cases.')
SCENARIO, RECORDING = os.path.join(WORK, 'scenario'), os.path.join(WORK, 'recording')
SPEED, KEP = 60, ('com.calyra.kep', '/com/calyra/kep')
BUS = ('org.freedesktop.DBus', '/org/freedesktop/DBus')
WITH_US = ['setpriv', '--pdeathsig', 'KILL']  # children die with the runner, whatever happens


def until(check, what, timeout=10):
    end = time.monotonic() + timeout
    while not check():
        assert time.monotonic() < end, 'gave up waiting for ' + what
        time.sleep(0.002)


def start(command):  # a program whose first line on standard output says it is ready; returns it and the line
    proc = subprocess.Popen(WITH_US + command, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
    until(lambda: select.select([proc.stdout], [], [], 0)[0], command[0] + ' to start')
    return proc, proc.stdout.readline().decode().strip()


class Bus:
    def __init__(self):
        self.daemon, self.address = start(['dbus-daemon', '--session', '--nofork', '--print-address',
                                           '--address=unix:tmpdir=' + WORK])
        self.conn = Gio.DBusConnection.new_for_address_sync(self.address, Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT
                                                            | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION, None, None)
        self.sim = None

    def control(self, method, fmt='()', *args, to=KEP + ('com.calyra.kep.Sim',)):
        return self.conn.call_sync(*to, method, GLib.Variant(fmt, args), None, 0, 5000, None).unpack()

    def serve(self):
        self.close(daemon=False)
        self.sim = start([SIM, '--address', self.address, '--scenario', SCENARIO])[0]

    def listening(self, member):
        rules = self.control('GetAllMatchRules', to=BUS + ('org.freedesktop.DBus.Debug.Stats',))[0]
        return any("member='%s'" % member in rule for rules in rules.values() for rule in rules)

    def close(self, daemon=True):
        procs = [self.sim, self.daemon] if daemon else [self.sim]
        for proc in filter(None, procs):
            proc.kill()
            proc.wait()
        if self.sim and not daemon:  # the bus frees the name once it has read the end of the connection
            until(lambda: not self.control('NameHasOwner', '(s)', KEP[0], to=BUS + BUS[:1])[0], 'the name to be free')

    def prepare(self, case):  # the case's service, as its lines set it up, or none
        self.close(daemon=False)
        if 'no-service' in case:
            return
        self.serve()
        for name, value in (line.split(' ', 1) for line in case.get('+', [])):
            self.control('SetProperty', '(sv)', name, GLib.Variant.parse(None, value, None, None))
        for fault in case.get('!', []):
            self.control('FailReads', '(sss)', *(fault.split(' ', 2) + ['', ''])[:3])
        if 'recapture' in case:
            open(SCENARIO, 'wb').write(subprocess.run([SIM, 'capture', '--address', self.address],
                                                      capture_output=True, check=True).stdout)
            self.serve()


def exec_without_argv(env):
    """Runs in the child before its exec: no process module of the language execs with no argument vector.
    Linux 5.18 and later hand the program one empty argument instead; older kernels, none at all."""
    libc, envp = ctypes.CDLL(None), [b'%s=%s' % (k.encode(), v.encode()) for k, v in env.items()] + [None]
    libc.prctl(1, 9)  # PR_SET_PDEATHSIG: SIGKILL
    libc.execve(CLIENT.encode(), (ctypes.c_char_p * 1)(None), (ctypes.c_char_p * len(envp))(*envp))


def emit(bus, client, kind, text):
    # scan and wps both listen for ScanResults, wps last of all and after its call
    member, args = text.split(' ', 1) if ' ' in text else ('ScanResults', None)
    until(lambda: bus.listening(member), 'the client to listen for ' + member)
    assert 'libQt5Network' not in open('/proc/%d/maps' % client.pid).read(), 'the waiting client maps QtNetwork'
    if text == 'restart':
        bus.serve()
    elif text == 'drop-bus':
        bus.daemon.kill()
    elif kind == '~!':
        bus.conn.emit_signal(None, KEP[1], KEP[0], member, GLib.Variant.parse(None, args, None, None))
    else:
        args = GLib.Variant.parse(None, args, None, None)
        bus.control('EmitSignal', '(sav)', member, [args.get_child_value(i) for i in range(args.n_children())])


def client_env(bus, case):
    env = {k: v for k, v in os.environ.items() if not k.startswith('QT_') and k != 'DBUS_SESSION_BUS_ADDRESS'}
    env.update(DBUS_SYSTEM_BUS_ADDRESS=bus.address, LC_ALL='C.UTF-8',
               ASAN_OPTIONS=env.get('ASAN_OPTIONS', '') + ':verify_asan_link_order=0')  # faketime preloads first
    if 'clock' in case:  # libfaketime itself: the faketime program would fork the client off
        env.update(FAKETIME='+0 x%d' % SPEED, LD_PRELOAD=glob.glob('/usr/lib/*/faketime/libfaketime.so.1')[0])
    return env


def run_client(bus, case, words):
    env = client_env(bus, case)
    prog = os.path.join(WORK, case['prog']) if 'prog' in case else CLIENT
    os.path.lexists(prog) or os.symlink(CLIENT, prog)
    out, err = (open(os.path.join(WORK, name), 'w+b') for name in ('out', 'err'))
    started = time.monotonic()
    client = subprocess.Popen(WITH_US + WRAPPER + [prog] + words, env=env, stdin=subprocess.DEVNULL, stdout=out,
                              stderr=err, preexec_fn=(lambda: exec_without_argv(env)) if 'no-argv' in case else None)
    try:
        for kind, text in case.get('~', []):
            emit(bus, client, kind, text)
        status = client.wait(timeout=120)
    finally:
        client.kill()
    seconds = time.monotonic() - started
    if 'clock' in case:
        assert float(case['clock']) <= seconds * SPEED < float(case['clock']) * 4 + 120, \
            'ended after %.1f of its seconds, not %s' % (seconds * SPEED, case['clock'])
    out.seek(0)
    err.seek(0)
    return status, out.read(), err.read().decode('utf-8', 'replace'), prog, seconds


def run_sim(bus, case, words):  # kep-sim with the runner's names in its command line replaced
    names = {'{scenario}': [SCENARIO], '{recording}': [RECORDING], '{bus}': [bus.address],
             '{kepclient}': WRAPPER + [CLIENT]}
    if '{bus}' in words:
        bus.prepare(case)
    started = time.monotonic()
    done = subprocess.run(WITH_US + [SIM] + [part for word in words[1:] for part in names.get(word, [word])],
                          env=client_env(bus, case), stdin=subprocess.DEVNULL, capture_output=True, timeout=60)
    return done.returncode, done.stdout, done.stderr.decode('utf-8', 'replace'), '', time.monotonic() - started


def run(bus, case, blocks, words):
    open(SCENARIO, 'w').write(case.get('scenario', "{'silent': <true>}").replace('\\n', '\n'))
    calls = []
    if words[:1] == ['sim']:
        status, out, err, prog, seconds = run_sim(bus, case, words)
    else:
        bus.prepare(case)
        status, out, err, prog, seconds = run_client(bus, case, words)
        if 'no-service' not in case and ('~', 'drop-bus') not in case.get('~', []):
            calls = ['%s%s %s %s' % ('!' * refused, member, sig or '-', body)
                     for member, sig, body, refused in bus.control('Calls')[0]]
    expected = ''.join(line.replace('⇥', '\t').replace('·', ' ') + '\n' for line in case.get('|', []) for line in
                       (blocks.get(line[1:], []) if line.startswith('@') else [line]))
    expected = expected.replace('{prog}', prog.replace('\\', '\\\\').replace('"', '\\"')).replace('{scenario}', SCENARIO)
    problems = []
    if status != int(case.get('exit', 0)) or out:
        problems.append('exit status %d, standard output %r' % (status, out[:200]))
    for what, seen, wanted in (('standard error', err, expected), ('calls', '\n'.join(calls), '\n'.join(case.get('>', [])))):
        if seen != wanted:
            problems.append('%s:\n%s\nexpected:\n%s' % (what, seen[:4000], wanted[:4000]))
    first = case.setdefault('seconds', seconds)
    if 'pace' in case and abs(seconds - first) > max(0.1 * first, 0.1):
        problems.append('took %.2f s, the case\'s first run %.2f s' % (seconds, first))
    assert not problems, '\n'.join(problems)


def parse(path):
    cases, case = [], None
    for number, line in enumerate(open(path, encoding='utf-8').read().splitlines() + [''], 1):
        tag, _, text = line.partition(' ')
        if not line.strip():
            case = None
        elif not line.startswith('#'):
            if case is None:
                case = dict(line=number)
                cases.append(case)
            if tag == '&':
                case[text.partition(' ')[0]] = text.partition(' ')[2]
            else:  # a signal keeps its tag: ~ the service's, ~! a stranger's
                case.setdefault(tag[0] if tag[0] == '~' else tag, []).append((tag, text) if tag[0] == '~' else text)
    blocks = {case['='][0][1:]: case['|'] for case in cases if '=' in case}
    return [case for case in cases if '=' not in case], blocks


def main():
    counts, bus = {'ok': 0, 'FAIL': 0, 'skipped': 0}, Bus()
    try:
        for path in sys.argv[1:]:
            cases, blocks = parse(path)
            for case, words in ((case, words) for case in cases for words in case.get('$') or ['']):
                words = eval(words, {'__builtins__': {}}) if words.startswith('[') else shlex.split(words)
                where = '%s:%d %s' % (os.path.basename(path), case['line'], shlex.join(map(str, words))[:60])
                without_client = words[:1] == ['sim'] and '{kepclient}' not in words
                if WRAPPER and ({'clock', 'no-argv'} & case.keys() or without_client):
                    counts['skipped'] += 1  # qemu-user keeps the real clock and an argument vector of its own
                    continue
                result, detail = 'ok', ''
                try:
                    run(bus, case, blocks, words)
                except (AssertionError, GLib.Error, subprocess.SubprocessError) as e:
                    result, detail = 'FAIL', '\n' + str(e)
                counts[result] += 1
                print(result, where, detail)
                if bus.daemon.poll() is not None:  # the case took the bus away
                    bus.close()
                    bus = Bus()
    finally:
        bus.close()
        shutil.rmtree(WORK)
    print('%(ok)d passed, %(FAIL)d failed, %(skipped)d skipped' % counts)
    return 1 if counts['FAIL'] else 0


if __name__ == '__main__':
    sys.exit(main())
