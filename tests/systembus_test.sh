#!/usr/bin/env bash
# kep-sim's policy on Debian's own system bus rules (system.conf with only the listen address, pid file and
# include directory changed). Without it even root cannot own com.calyra.kep, and kep-sim names the command
# that enables it; enabled that way, root owns the name, nobody else can, and an unprivileged user's
# kepclient status, off and loglevel 3 reach the service.   systembus_test.sh KEPCLIENT KEP_SIM POLICY
set -euo pipefail
[ "$(id -u)" -eq 0 ] || { echo "systembus test: skipped: needs root (a real system bus configuration" \
    "drops to messagebus; kep-sim runs as root, kepclient as nobody)"; exit 77; }
# A PID namespace of its own: however this script ends, no process outlives it.
[ -n "${KEP_SYSTEMBUS_NS:-}" ] || KEP_SYSTEMBUS_NS=1 exec unshare --pid --fork --kill-child "$0" "$@"
client=$1 sim=$2 policy=$3 failures=0 pids=()
fail() { echo "systembus test: FAIL: $*" >&2; failures=$((failures + 1)); }
work=$(mktemp -d)
trap 'kill "${pids[@]}" 2>/dev/null; wait; rm -rf "$work"' EXIT
chmod 755 "$work" && mkdir "$work/system.d" "$work/bin"
# nobody runs the programs from here: the build tree may lie where nobody cannot enter (a home of mode 0700).
install -m 755 "$client" "$sim" "$work/bin/"
client=$work/bin/$(basename "$client") sim=$work/bin/$(basename "$sim")
sed -e "s|<listen>.*</listen>|<listen>unix:path=$work/bus</listen>|" \
    -e "s|<pidfile>.*</pidfile>|<pidfile>$work/pid</pidfile>|" \
    -e "s|<includedir>.*</includedir>|<includedir>$work/system.d</includedir>|" \
    /usr/share/dbus-1/system.conf >"$work/system.conf"
exec {bus}< <(exec dbus-daemon --config-file="$work/system.conf" --nofork --print-address=1 2>"$work/bus.err")
pids+=($!)
read -r -t 10 -u "$bus" address || { cat "$work/bus.err" >&2; exit 1; }
export DBUS_SYSTEM_BUS_ADDRESS=$address
as_nobody() { setpriv --reuid=nobody --regid=nogroup --clear-groups -- timeout "$@"; }
sim_calls=(gdbus call --system -d com.calyra.kep -o /com/calyra/kep -m com.calyra.kep.Sim.Calls)

{ timeout 10 "$sim" --system >"$work/out" 2>"$work/err" || [ -s "$work/out" ]; } && fail "root owned the name without the policy"
grep -q "install -m 644 .*/kep-sim.conf /etc/dbus-1/system.d/kep-sim.conf" "$work/err" ||
    fail "kep-sim does not name the command that enables its policy: $(cat "$work/err")"
# Enabled as that command does it, here into the copy's include directory.
install -m 644 "$policy" "$work/system.d/kep-sim.conf"
gdbus call --system -d org.freedesktop.DBus -o /org/freedesktop/DBus -m org.freedesktop.DBus.ReloadConfig >/dev/null
{ as_nobody 10 "$sim" --system >"$work/out" 2>"$work/err" || [ -s "$work/out" ]; } && fail "nobody owned the name"
grep -q "cannot own com.calyra.kep" "$work/err" || fail "kep-sim as nobody: $(cat "$work/err")"

exec {service}< <(exec "$sim" --system 2>"$work/sim.err")
pids+=($!)
read -r -t 10 -u "$service" line || true
[ "$line" = "DBUS_SYSTEM_BUS_ADDRESS=$address" ] || { fail "root's kep-sim: '$line' $(cat "$work/sim.err")"; exit 1; }
status=$(as_nobody 30 "$client" status 2>&1)
grep -q '^Property:  "Mode"  ->  ' <<<"$status" || fail "nobody's kepclient status: $status"
as_nobody 30 "$client" off
as_nobody 30 "$client" loglevel 3
calls=$("${sim_calls[@]}") || fail "root cannot read the calls kep-sim received"
for call in "('Get', 'ss', \"('com.calyra.kep', 'Details')\", false)" "('SetOffMode', '', '()', false)" \
            "('Set', 'ssv', \"('com.calyra.kep', 'LogLevel', <3>)\", false)"; do
    grep -qF "$call" <<<"$calls" || fail "kep-sim did not receive $call: $calls"
done
as_nobody 30 "${sim_calls[@]}" >/dev/null 2>&1 && fail "nobody may use the simulator's control interface"

[ "$failures" -eq 0 ] || { echo "systembus test: $failures failure(s)" >&2; exit 1; }
echo "systembus test: policy enabled by its install command; root serves, nobody calls and writes: ok"
