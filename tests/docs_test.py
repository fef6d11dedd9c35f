#!/usr/bin/python3
"""The documentation against the programs it describes.

Every console block of the guides runs as it stands, in a scratch directory (one a page, with the build
tree at build/) with the build's programs first in PATH, and must print what the page shows (⇥ for a
tab). The manual pages name every option
that kep-sim --help lists, every method of kep-sim's control interface, every key a scenario may hold
and every command word of kepclient's usage text.

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


def main():
    source = os.path.abspath(sys.argv[1])
    build = os.path.abspath(sys.argv[2])
    env = dict(os.environ, PATH=build + os.pathsep + os.environ['PATH'], LC_ALL='C.UTF-8', KEP_BUILD=build)
    env.pop('DBUS_SYSTEM_BUS_ADDRESS', None)
    failures = check_references(source, env) + check_guides(source, env)
    for failure in failures:
        print('FAIL', failure)
    print('docs: %d problems' % len(failures))
    return 1 if failures else 0


if __name__ == '__main__':
    sys.exit(main())
