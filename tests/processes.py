"""What the test scripts start: programs that die with the script, bounded waits for them."""
import select
import subprocess
import time

# Every child dies with the script, whatever happens.
WITH_US = ['setpriv', '--pdeathsig', 'KILL']

WAIT_LIMIT = 10  # seconds: a program to start, the client to listen, the bus to free a name
POLL_INTERVAL = 0.002


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
