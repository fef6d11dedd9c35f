#!/usr/bin/env bash
# kep-sim's policy on Debian's own system bus rules (system.conf with only the listen address, pid file
# and include directory changed). Without it even root cannot own com.calyra.kep, and kep-sim names the
# command that enables it; enabled that way, root owns the name, nobody else can, and an unprivileged
# user's kepclient status, off and loglevel 3 reach the service.
#   systembus_test.sh KEPCLIENT KEP_SIM POLICY
set -euo pipefail
if [ "$(id -u)" -ne 0 ]; then
    echo "systembus test: skipped: needs root (a real system bus configuration drops to messagebus;" \
        "kep-sim runs as root, kepclient as nobody)"
    exit 77
fi
# A PID namespace of its own, with its own /proc: however this script ends, no process outlives it, and
# the sanitizers read the threads of the programs it starts.
if [ -z "${KEP_SYSTEMBUS_NS:-}" ]; then
    KEP_SYSTEMBUS_NS=1 exec unshare --pid --fork --mount-proc --kill-child "$0" "$@"
fi
client=$1
sim=$2
policy=$3
wait_limit=10   # seconds for the bus and kep-sim to start, or kep-sim to give up on the name
client_limit=30 # seconds for one run of the client or one call
failures=0
pids=()
fail() {
    echo "systembus test: FAIL: $*" >&2
    failures=$((failures + 1))
}
work=$(mktemp -d)
# Runs to its end whatever fails: a process already gone is no reason to leave the directory behind.
cleanup() {
    set +e
    kill "${pids[@]}" 2>/dev/null
    wait
    rm -rf "$work"
}
trap cleanup EXIT
chmod 755 "$work"
mkdir "$work/system.d" "$work/bin"
# nobody runs the programs from here: the build tree may lie where nobody cannot enter (a home of mode
# 0700).
install -m 755 "$client" "$sim" "$work/bin/"
client=$work/bin/$(basename "$client")
sim=$work/bin/$(basename "$sim")
sed -e "s|<listen>.*</listen>|<listen>unix:path=$work/bus</listen>|" \
    -e "s|<pidfile>.*</pidfile>|<pidfile>$work/pid</pidfile>|" \
    -e "s|<includedir>.*</includedir>|<includedir>$work/system.d</includedir>|" \
    /usr/share/dbus-1/system.conf >"$work/system.conf"
exec {bus}< <(exec dbus-daemon --config-file="$work/system.conf" --nofork --print-address=1 2>"$work/bus.err")
pids+=($!)
if ! read -r -t "$wait_limit" -u "$bus" address; then
    cat "$work/bus.err" >&2
    exit 1
fi
export DBUS_SYSTEM_BUS_ADDRESS=$address
as_nobody() {
    setpriv --reuid=nobody --regid=nogroup --clear-groups -- timeout "$@"
}
sim_calls=(gdbus call --system -d com.calyra.kep -o /com/calyra/kep -m com.calyra.kep.Sim.Calls)
# owned_name COMMAND...: whether kep-sim, run by COMMAND, owned the name: it printed the bus address
# (and was stopped by the time limit) or even ended well. kep-sim's output is in out and err.
owned_name() {
    if "$@" >"$work/out" 2>"$work/err"; then
        return 0
    fi
    [ -s "$work/out" ]
}

if owned_name timeout "$wait_limit" "$sim" --system; then
    fail "root owned the name without the policy"
fi
if ! grep -q "install -m 644 .*/kep-sim.conf /etc/dbus-1/system.d/kep-sim.conf" "$work/err"; then
    fail "kep-sim does not name the command that enables its policy: $(cat "$work/err")"
fi
# Enabled as that command does it, here into the copy's include directory.
install -m 644 "$policy" "$work/system.d/kep-sim.conf"
gdbus call --system -d org.freedesktop.DBus -o /org/freedesktop/DBus \
    -m org.freedesktop.DBus.ReloadConfig >/dev/null
if owned_name as_nobody "$wait_limit" "$sim" --system; then
    fail "nobody owned the name"
fi
if ! grep -q "cannot own com.calyra.kep" "$work/err"; then
    fail "kep-sim as nobody: $(cat "$work/err")"
fi

exec {service}< <(exec "$sim" --system 2>"$work/sim.err")
pids+=($!)
served=''
if read -r -t "$wait_limit" -u "$service" line; then
    served=$line
fi
if [ "$served" != "DBUS_SYSTEM_BUS_ADDRESS=$address" ]; then
    fail "root's kep-sim: '$served' $(cat "$work/sim.err")"
    exit 1
fi
status=$(as_nobody "$client_limit" "$client" status 2>&1)
if ! grep -q '^Property:  "Mode"  ->  ' <<<"$status"; then
    fail "nobody's kepclient status: $status"
fi
as_nobody "$client_limit" "$client" off
as_nobody "$client_limit" "$client" loglevel 3
calls=''
if ! calls=$("${sim_calls[@]}"); then
    fail "root cannot read the calls kep-sim received"
fi
expected_calls=(
    "('Get', 'ss', \"('com.calyra.kep', 'Details')\", false)"
    "('SetOffMode', '', '()', false)"
    "('Set', 'ssv', \"('com.calyra.kep', 'LogLevel', <3>)\", false)"
)
for call in "${expected_calls[@]}"; do
    if ! grep -qF "$call" <<<"$calls"; then
        fail "kep-sim did not receive $call: $calls"
    fi
done
if as_nobody "$client_limit" "${sim_calls[@]}" >/dev/null 2>&1; then
    fail "nobody may use the simulator's control interface"
fi

if [ "$failures" -ne 0 ]; then
    echo "systembus test: $failures failure(s)" >&2
    exit 1
fi
echo "systembus test: policy enabled by its install command; root serves, nobody calls and writes: ok"
