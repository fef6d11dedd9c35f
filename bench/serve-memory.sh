#!/usr/bin/env bash
# kep-sim's peak memory over a long run of calls, against their number: CALLS writes of WirelessNetworks
# with a network map of about 1 KiB (default 1 000, then 20 000), made by one program under `kep-sim run`
# as a client left running for days would make them; then kep-sim's peak resident memory, read from its
# /proc status. The goal: the peak after 20 000 calls within a few MiB of the peak after 1 000.
# Usage: bench/serve-memory.sh BUILD_DIR [CALLS...]
set -euo pipefail
build=$(cd "${1:?usage: bench/serve-memory.sh BUILD_DIR [CALLS...]}" && pwd)
shift
calls_list=("$@")
if [ ${#calls_list[@]} -eq 0 ]; then
    calls_list=(1000 20000)
fi

# COMMAND under `kep-sim run`: its parent is kep-sim.
caller='
import os
import sys
from gi.repository import Gio, GLib
bus = Gio.DBusConnection.new_for_address_sync(
    os.environ["DBUS_SYSTEM_BUS_ADDRESS"],
    Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION,
    None, None)
networks = GLib.Variant("a{sv}", {"Home": GLib.Variant("a{sv}", {"wpa_psk": GLib.Variant("s", "k" * 1000)})})
for index in range(int(sys.argv[1])):
    bus.call_sync("com.calyra.kep", "/com/calyra/kep", "org.freedesktop.DBus.Properties", "Set",
                  GLib.Variant("(ssv)", ("com.calyra.kep", "WirelessNetworks", networks)),
                  None, Gio.DBusCallFlags.NONE, -1, None)
with open("/proc/%d/status" % os.getppid()) as status:
    for line in status:
        if line.startswith("VmHWM:"):
            print(line.split()[1], file=sys.stderr)
'

for calls in "${calls_list[@]}"; do
    peak=$("$build/kep-sim" run -- /usr/bin/python3 -c "$caller" "$calls" 2>&1 >/dev/null | tail -n 1)
    echo "$calls calls: kep-sim's peak $peak KiB"
done
