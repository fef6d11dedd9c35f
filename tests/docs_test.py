#!/usr/bin/python3
"""The documentation against the programs it describes.

Every console block of the guides runs as it stands, in a scratch directory (one a page, with the build
tree at build/) with the build's programs first in PATH, and must print what the page shows (⇥ for a
tab). The manual pages name every option
that kep-sim --help lists, every method of kep-sim's control interface, every key a scenario may hold
and every command word of kepclient's usage text, and the version kep-sim --version prints. Each bash
completion offers what its program's usage text lists, and nothing else.

usage: docs_test.py SOURCE_DIR BUILD_DIR
"""
import os
import re
import shutil
import subprocess
import sys
import tempfile

GUIDES = ['README.md', 'doc/kep-sim.md']
COMMAND_LIMIT = 60  # seconds for one command of a block
# Scenarios whose refusal lists the keys known at that place: the top, scan, wps, a dialog's step.
KEY_PROBES = ["{'?': <1>}", "{'scan': <{'?': <1>}>}", "{'wps': <{'?': <1>}>}",
              "{'dialog': <[{'?': <1>}]>}"]
SIM_INTERFACE = 'com.calyra.kep.Sim'
SIM_WORDS = ['run', 'serve', 'check', 'capture', 'record']
# The options of kep-sim that take a file, and a file the completion must offer after them.
FILE_OPTIONS = ['--scenario', '--output']
PROBE_FILE = 'probe.gv'


def console_blocks(path):
    """Each console block of a page: its first line number and its lines."""
    blocks = []
    lines = None
    with open(path, encoding='utf-8') as page:
        for number, line in enumerate(page.read().splitlines(), 1):
            if line == '```console':
                lines = []
                blocks.append((number, lines))
            elif line == '```':
                lines = None
            elif lines is not None:
                lines.append(line)
    return blocks


def commands(lines):
    """The block's commands, each with the output the page shows for it; a here-document belongs to its
    command, a command line that ends in a quote still open goes on with the next."""
    runs = []
    at = 0
    while at < len(lines):
        assert lines[at].startswith('$ '), 'expected a "$ " command line: %r' % lines[at]
        command = lines[at][2:]
        at += 1
        end_word = re.search(r"<<'(\w+)'$", command)
        while end_word and at < len(lines):
            command += '\n' + lines[at]
            at += 1
            if lines[at - 1] == end_word.group(1):
                break
        while command.count("'") % 2 and at < len(lines):
            command += '\n' + lines[at]
            at += 1
        shown = []
        while at < len(lines) and not lines[at].startswith('$ '):
            shown.append(lines[at].replace('⇥', '\t'))
            at += 1
        runs.append((command, ''.join(line + '\n' for line in shown)))
    return runs


def check_guides(source, env):
    failures = []
    for guide in GUIDES:
        scratch = tempfile.mkdtemp(prefix='kep-docs.')
        os.symlink(env['KEP_BUILD'], os.path.join(scratch, 'build'))
        try:
            for first_line, lines in console_blocks(os.path.join(source, guide)):
                for command, shown in commands(lines):
                    done = subprocess.run(['bash', '-c', command], cwd=scratch, env=env,
                                          stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                          stderr=subprocess.STDOUT, timeout=COMMAND_LIMIT)
                    printed = done.stdout.decode('utf-8', 'replace')
                    if printed != shown:
                        failures.append('%s:%d: %s\nprinted:\n%s\nthe page shows:\n%s'
                                        % (guide, first_line, command, printed, shown))
        finally:
            shutil.rmtree(scratch)
    return failures


def output(command, env):
    done = subprocess.run(command, env=env, stdin=subprocess.DEVNULL, capture_output=True,
                          timeout=COMMAND_LIMIT)
    return (done.stdout + done.stderr).decode('utf-8', 'replace')


def roff_names(page):
    """The words of a manual page as roff writes them: "\\-" is a dash."""
    with open(page, encoding='utf-8') as text:
        return text.read().replace('\\-', '-')


def check_references(source, env):
    sim_page = roff_names(os.path.join(source, 'doc/kep-sim.1'))
    client_page = roff_names(os.path.join(source, 'doc/kepclient.1'))
    wanted = []
    usage = output(['kep-sim', '--help'], env)
    wanted += [('kep-sim --help', option, sim_page) for option in re.findall(r'--[a-z-]+', usage)]
    introspection = output(['kep-sim', 'run', '--', 'gdbus', 'introspect', '--system', '-d', 'com.calyra.kep',
                            '-o', '/com/calyra/kep'], env)
    control = introspection.split('interface %s {' % SIM_INTERFACE)[1].split('};')[0]
    methods = re.findall(r'^\s+(\w+)\(', control, re.M)
    assert methods, 'no control method found in:\n' + introspection
    wanted += [('the control interface', method + '(', sim_page) for method in methods]
    scratch = tempfile.mkdtemp(prefix='kep-docs.')
    try:
        probe = os.path.join(scratch, 'probe.gv')
        for scenario in KEY_PROBES:
            with open(probe, 'w') as written:
                written.write(scenario)
            refusal = output(['kep-sim', '--scenario', probe, 'check'], env)
            keys = re.search(r'known here: ([^)]*)\)', refusal).group(1).split(', ')
            wanted += [('scenario ' + scenario, key, sim_page) for key in keys]
    finally:
        shutil.rmtree(scratch)
    words = re.findall(r'^\t(\w+)', output(['kepclient', 'help'], env), re.M)
    assert words, 'no command word in kepclient help'
    wanted += [('kepclient help', word, client_page) for word in words]
    return ['%s names %r, which its manual page does not' % (where, name)
            for where, name, page in wanted if name not in page]


def completed(script, function, words, cwd):
    """What bash completion's FUNCTION, from SCRIPT, offers for the last of WORDS."""
    shell = ('source "$1"; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); %s; '
             'printf "%%s\\n" "${COMPREPLY[@]}"' % function)
    done = subprocess.run(['bash', '--norc', '--noprofile', '-c', shell, '-', script] + words, cwd=cwd,
                          stdin=subprocess.DEVNULL, capture_output=True, timeout=COMMAND_LIMIT)
    return set(done.stdout.decode('utf-8', 'replace').split())


def check_completions(source, env):
    failures = []
    scratch = tempfile.mkdtemp(prefix='kep-docs.')
    try:
        open(os.path.join(scratch, PROBE_FILE), 'w').close()
        sim_script = os.path.join(source, 'sim/kep-sim.bash')
        listed = set(re.findall(r'--[a-z-]+', output(['kep-sim', '--help'], env))) | set(SIM_WORDS)
        offered = completed(sim_script, '_kep_sim', ['kep-sim', ''], scratch)
        for word in SIM_WORDS:
            offered |= completed(sim_script, '_kep_sim', ['kep-sim', word, ''], scratch) - {'--'}
        if offered != listed:
            failures.append('the kep-sim completion offers %s; kep-sim --help lists %s'
                            % (sorted(offered), sorted(listed)))
        for option in FILE_OPTIONS:
            files = completed(sim_script, '_kep_sim', ['kep-sim', 'record', option, 'pro'], scratch)
            if files != {PROBE_FILE}:
                failures.append('the kep-sim completion offers %s after %s' % (sorted(files), option))
        words = set(re.findall(r'^\t(\w+)', output(['kepclient', 'help'], env), re.M))
        client_script = os.path.join(source, 'client/kepclient.bash')
        offered = completed(client_script, '_kepclient', ['kepclient', ''], scratch)
        if offered != words:
            failures.append('the kepclient completion offers %s; kepclient help lists %s'
                            % (sorted(offered), sorted(words)))
    finally:
        shutil.rmtree(scratch)
    return failures


def check_version(source, env):
    """kep-sim --version and the manual pages name the release of debian/changelog's latest entry."""
    with open(os.path.join(source, 'debian/changelog'), encoding='utf-8') as changelog:
        version = re.match(r'kepclient \(([^)]*)\)', changelog.readline()).group(1)
    printed = output(['kep-sim', '--version'], env)
    failures = []
    if printed != 'kep-sim %s\n' % version:
        failures.append('kep-sim --version printed %r, not kep-sim %s' % (printed, version))
    for page in ['doc/kep-sim.1', 'doc/kepclient.1']:
        if '"kepclient %s"' % version not in roff_names(os.path.join(source, page)):
            failures.append('%s does not name kepclient %s in its title line' % (page, version))
    return failures


def main():
    source = os.path.abspath(sys.argv[1])
    build = os.path.abspath(sys.argv[2])
    env = dict(os.environ, PATH=build + os.pathsep + os.environ['PATH'], LC_ALL='C.UTF-8', KEP_BUILD=build)
    env.pop('DBUS_SYSTEM_BUS_ADDRESS', None)
    failures = check_references(source, env) + check_completions(source, env) + check_version(source, env)
    failures += check_guides(source, env)
    for failure in failures:
        print('FAIL', failure)
    print('docs: %d problems' % len(failures))
    return 1 if failures else 0


if __name__ == '__main__':
    sys.exit(main())
