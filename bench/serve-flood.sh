#!/usr/bin/env bash
# kep-sim under a flood of large calls: one caller sends CALLS calls of MIB MiB each that the service refuses
# (a Scan with a string), then polls Calls() 100 times, while a second caller pings the service every
# 10 ms. Then: the longest a Ping waited, and kep-sim's peak resident memory, from its /proc status.
# The goal: no Ping held past half a second, and the peak flat whatever the calls' size.
# Usage: bench/serve-flood.sh BUILD_DIR [CALLS [MIB]]   (default 10 calls of 2 MiB)
set -euo pipefail
build=$(cd "${1:?usage: bench/serve-flood.sh BUILD_DIR [CALLS [MIB]]}" && pwd)
calls=${2:-10}
mebibytes=${3:-2}

# COMMAND under `kep-sim run`: its parent is kep-sim.
caller='
import os
import sys
import threading
import time
from gi.repository import Gio, GLib

def connect():
    flags = Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION
    return Gio.DBusConnection.new_for_address_sync(os.environ["DBUS_SYSTEM_BUS_ADDRESS"], flags, None, None)

def call(bus, interface, method, args):
    try:
        return bus.call_sync("com.calyra.kep", "/com/calyra/kep", interface, method, args, None,
                             Gio.DBusCallFlags.NONE, -1, None)
    except GLib.Error:
        return None

flooding = True
longest = 0.0

def ping():
    global longest
    bus = connect()
    while flooding:
        started = time.monotonic()
        call(bus, "org.freedesktop.DBus.Peer", "Ping", None)
        longest = max(longest, time.monotonic() - started)
        time.sleep(0.01)

pinger = threading.Thread(target=ping)
pinger.start()
bus = connect()
big = GLib.Variant("(s)", ("x" * (int(sys.argv[2]) * 1024 * 1024),))
for index in range(int(sys.argv[1])):
    call(bus, "com.calyra.kep", "Scan", big)
for index in range(100):
    call(bus, "com.calyra.kep.Sim", "Calls", None)
flooding = False
pinger.join()
with open("/proc/%d/status" % os.getppid()) as status:
    peak = [line.split()[1] for line in status if line.startswith("VmHWM:")][0]
print("longest Ping %.0f ms, kep-sim peak %s KiB" % (longest * 1000, peak), file=sys.stderr)
'

echo "$calls calls of $mebibytes MiB: $("$build/kep-sim" run -- /usr/bin/python3 -c "$caller" "$calls" \
    "$mebibytes" 2>&1 >/dev/null | tail -n 1)"
