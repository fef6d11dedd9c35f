#!/usr/bin/env bash
# Benchmarks kepclient against the Qt floor (a bare Qt program making the
# same call and printing one line) and the generic D-Bus tools doing the same
# work (gdbus, busctl, dbus-send) on the simulated service, and prints tables:
# median wall time, user and system time, peak resident memory and
# instruction counts, each also as a ratio of kepclient to the other program.
#
#   bench/run.sh                   build (Release, in build-bench/) and measure
#   bench/run.sh --client PATH     measure another kepclient binary instead
#                                  (e.g. one built from an older commit)
#   bench/run.sh --build-dir DIR   build in DIR instead of build-bench/
#   bench/run.sh --quick           fewer runs (a rough look in under a minute)
#
# Installs what is missing (Debian 12, apt-get), builds and stops everything
# it started when it ends. It reports, it never fails on a figure; it fails
# only when something cannot run at all.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD

client=""
build=$root/build-bench
quick=0
while [ $# -gt 0 ]; do
    case $1 in
    --client) client=$(realpath "$2"); shift 2 ;;
    --build-dir) build=$(realpath -m "$2"); shift 2 ;;
    --quick) quick=1; shift ;;
    -h | --help) sed -n '2,16p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    *) echo "bench/run.sh: unknown argument $1 (see --help)" >&2; exit 2 ;;
    esac
done

# Each section is timed in rounds: one hyperfine run over all its commands
# per round, so that no command gets only the quiet or only the busy moments
# of the machine. A command's time is the median of its round medians.
# Many short rounds for the one-shot commands: their goals are ratios of a
# few per cent, and the machine's speed drifts by more than that.
long=(--warmup 1 --runs 3)
if [ $quick -eq 1 ]; then
    short=(--warmup 2 --runs 10)
    short_rounds=1
    long_rounds=1
    rss_runs=3
else
    short=(--warmup 3 --runs 15)
    short_rounds=10
    long_rounds=5
    rss_runs=9
fi

say() { echo "bench: $*" >&2; }

# --- tools -----------------------------------------------------------------
# busctl is in the systemd package; it needs no running systemd to talk to a bus.
scripts/install-deps.sh hyperfine valgrind time libglib2.0-bin dbus-bin systemd

# --- build -------------------------------------------------------------------
jobs=$(nproc)
say "building (Release) in $build"
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=OFF >/dev/null
cmake --build "$build" -j"$jobs" --target kepclient kep-sim >/dev/null
cmake -S bench/floor -B "$build/floor" -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$build/floor" -j"$jobs" >/dev/null
sim=$build/kep-sim
floor=$build/floor/floor
floor_dbus=$build/floor/floor-dbus
[ -n "$client" ] || client=$build/kepclient
# The programs as words of a command line (quoted, for a path with blanks).
q_client=$(printf '%q' "$client")
q_floor=$(printf '%q' "$floor")
q_floor_dbus=$(printf '%q' "$floor_dbus")

# --- scenarios, simulated services -------------------------------------------
work=$(mktemp -d)
sims=()
cleanup() {
    local pid
    for pid in "${sims[@]}"; do
        kill -TERM "$pid" 2>/dev/null || true
    done
    for pid in "${sims[@]}"; do
        wait "$pid" 2>/dev/null || true
    done
    rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

bench/scenarios.sh "$work"

# start_sim NAME: serves $work/NAME.gv on a private bus; sets $address.
# Waits for the simulator's one line on standard output (it prints it once it
# owns the service's name), at most 60 s; a simulator that ends early ends
# the wait at once. The pipe stays open until the script ends.
start_sim() {
    mkfifo "$work/$1.out"
    "$sim" --scenario "$work/$1.gv" serve >"$work/$1.out" 2>"$work/$1.log" &
    sims+=($!)
    local fd line=""
    exec {fd}<"$work/$1.out"
    read -r -t 60 -u "$fd" line || true
    address=${line#DBUS_SYSTEM_BUS_ADDRESS=}
    [ -n "$line" ] && [ "$address" != "$line" ] && return 0
    echo "bench/run.sh: kep-sim did not start for $1:" >&2
    cat "$work/$1.log" >&2
    exit 1
}

# --- measuring ------------------------------------------------------------------
# Every command runs with the simulated bus as the system bus.
gdbus_to="gdbus call --system --dest com.calyra.kep --object-path /com/calyra/kep"
dbussend_to="dbus-send --system --print-reply --dest=com.calyra.kep /com/calyra/kep"
gdbus_get="$gdbus_to --method org.freedesktop.DBus.Properties.Get com.calyra.kep Details"
busctl_get="busctl --system get-property com.calyra.kep /com/calyra/kep com.calyra.kep Details"
dbussend_get="$dbussend_to org.freedesktop.DBus.Properties.Get string:com.calyra.kep string:Details"
gdbus_off="$gdbus_to --method com.calyra.kep.SetOffMode"
busctl_off="busctl --system call com.calyra.kep /com/calyra/kep com.calyra.kep SetOffMode"
dbussend_off="$dbussend_to com.calyra.kep.SetOffMode"

# peak_rss CMD...: median of GNU time's maximum resident set size, in kB.
peak_rss() {
    local i
    for i in $(seq $rss_runs); do
        DBUS_SYSTEM_BUS_ADDRESS=$address /usr/bin/time -f %M -o "$work/rss" "$@" >/dev/null 2>&1 || true
        tail -n 1 "$work/rss"
    done | sort -n | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'
}

# instructions CMD...: instructions executed (callgrind's Ir, all threads).
instructions() {
    DBUS_SYSTEM_BUS_ADDRESS=$address valgrind --tool=callgrind --callgrind-out-file=/dev/null \
        --log-file="$work/valgrind.log" "$@" >/dev/null 2>&1 || true
    sed -n 's/.*Collected : \([0-9]*\).*/\1/p' "$work/valgrind.log" | tail -n 1
}

# lines_printed CMD...: how many lines the command writes (both streams).
lines_printed() {
    DBUS_SYSTEM_BUS_ADDRESS=$address "$@" 2>&1 | wc -l
}

# measure SECTION RUNS-ARRAY-NAME WITH-IR LABEL=COMMAND...: times the
# commands of a section in rounds (RUNS-ARRAY-NAME_rounds hyperfine runs over
# all of them, with the options in the array RUNS-ARRAY-NAME), then takes
# peak RSS and, when WITH-IR is 1, instruction counts one by one. A COMMAND is
# one line of words, quoted as the shell quotes them.
# Appends a row per command to $work/rows, fields separated by |:
#   section|label|median s|user s|system s|peak RSS kB|instructions|fastest round s
measure() {
    local section=$1
    local runs_name=$2
    local with_ir=$3
    shift 3
    local -n runs_ref=$runs_name
    local -n rounds=${runs_name}_rounds
    local labels=()
    local commands=()
    local words=()
    local pair
    for pair in "$@"; do
        labels+=("${pair%%=*}")
        commands+=("${pair#*=}")
    done
    say "measuring: $section"
    local round
    for round in $(seq $rounds); do
        if ! DBUS_SYSTEM_BUS_ADDRESS=$address hyperfine -N --style none "${runs_ref[@]}" \
            --export-csv "$work/$section.$round.csv" "${commands[@]}" >/dev/null 2>"$work/hyperfine.log"; then
            cat "$work/hyperfine.log" >&2
            exit 1
        fi
    done
    local i rss ir times
    for i in "${!commands[@]}"; do
        # The command line split into its words, as the shell would.
        eval "words=(${commands[$i]})"
        rss=$(peak_rss "${words[@]}")
        ir=""
        [ "$with_ir" -eq 0 ] || ir=$(instructions "${words[@]}")
        # median of the round medians; user and system time as their medians
        # too; and the fastest round's median, the least disturbed by the rest
        # of the machine
        times=$(for round in $(seq $rounds); do
                    awk -F, -v row=$((i + 2)) 'NR == row { print $4, $5, $6 }' "$work/$section.$round.csv"
                done | awk '{ m[NR] = $1; u[NR] = $2; s[NR] = $3 }
                    function median(a, n,    i, j, t) {
                        for (i = 2; i <= n; i++) {
                            for (j = i; j > 1 && a[j - 1] > a[j]; j--) {
                                t = a[j]
                                a[j] = a[j - 1]
                                a[j - 1] = t
                            }
                        }
                        return n % 2 ? a[(n + 1) / 2] : (a[n / 2] + a[n / 2 + 1]) / 2
                    }
                    END { best = m[1]; for (i = 2; i <= NR; i++) if (m[i] < best) best = m[i]
                          print median(m, NR) "|" median(u, NR) "|" median(s, NR) "|" best }')
        echo "$section|${labels[$i]}|${times%|*}|$rss|$ir|${times##*|}" >>"$work/rows"
    done
}

# --- the runs --------------------------------------------------------------------
load_before=$(cut -d' ' -f1-3 /proc/loadavg)
start_sim typical
typical_lines=$(lines_printed "$client" status)
if [ "$typical_lines" -eq 0 ]; then
    echo "bench/run.sh: kepclient status printed nothing" >&2
    exit 1
fi
measure status short 1 \
    "kepclient status=$q_client status" \
    "floor-dbus print=$q_floor_dbus print" \
    "floor-dbus proxy=$q_floor_dbus proxy" \
    "floor-dbus get=$q_floor_dbus get" \
    "floor (QCoreApplication only)=$q_floor" \
    "gdbus call=$gdbus_get" \
    "busctl get-property=$busctl_get" \
    "dbus-send --print-reply=$dbussend_get"
measure off short 1 \
    "kepclient off=$q_client off" \
    "gdbus call=$gdbus_off" \
    "busctl call=$busctl_off" \
    "dbus-send --print-reply=$dbussend_off"

start_sim large
large_lines=$(lines_printed "$client" status)
measure large long 0 \
    "kepclient status=$q_client status" \
    "busctl get-property=$busctl_get" \
    "gdbus call=$gdbus_get" \
    "floor-dbus get=$q_floor_dbus get"

start_sim scan
scan_lines=$(lines_printed "$client" scan)
measure scan long 0 \
    "kepclient scan=$q_client scan"

# --- the report ------------------------------------------------------------------
print_section() {
    local section=$1
    local title=$2
    echo
    echo "## $title"
    echo
    awk -F'|' -v section="$section" '
        $1 != section { next }
        {
            n++; label[n] = $2; median[n] = $3 * 1000; user[n] = $4 * 1000; sys[n] = $5 * 1000
            rss[n] = $6; ir[n] = $7; best[n] = $8 * 1000
        }
        function ratio(a, b) { return (a > 0 && b > 0) ? sprintf("%.2f", a / b) : "-" }
        END {
            printf "| %-34s | %9s | %8s | %7s | %7s | %7s | %8s | %11s | %8s | %13s | %8s |\n", "command", \
                "median ms", "kep/this", "user ms", "sys ms", "best ms", "kep/this", "peak RSS kB", \
                "kep/this", "instructions", "kep/this"
            printf "|:-----------------------------------|----------:|---------:|--------:|--------:|"
            printf "--------:|"
            printf "---------:|------------:|---------:|--------------:|---------:|\n"
            for (i = 1; i <= n; i++)
                printf "| %-34s | %9.2f | %8s | %7.2f | %7.2f | %7.2f | %8s | %11s | %8s | %13s | %8s |\n", \
                    label[i], median[i], ratio(median[1], median[i]), user[i], sys[i], best[i], \
                    ratio(best[1], best[i]), rss[i], ratio(rss[1], rss[i]), \
                    (ir[i] == "" ? "-" : ir[i]), ratio(ir[1], ir[i])
        }' "$work/rows"
}

value() { awk -F'|' -v s="$1" -v l="$2" -v f="$3" '$1 == s && $2 == l { print $f }' "$work/rows"; }

# compare TEXT A B [LIMIT]: the ratio A / B, against a goal when LIMIT is given.
compare() {
    awk -v t="$1" -v a="$2" -v b="$3" -v lim="${4:-}" 'BEGIN {
        if (a <= 0 || b <= 0) { printf "- %-74s     -\n", t; exit }
        r = a / b
        if (lim == "")
            printf "- %-74s %5.2f\n", t, r
        else
            printf "- %-74s %5.2f  (goal <= %.2f: %s)\n", t, r, lim, (r <= lim ? "met" : "NOT met")
    }'
}

echo "# kepclient benchmark"
echo
qt_version=$(dpkg-query -W -f='${Version}' libqt5core5a 2>/dev/null)
echo "$(date -u +%Y-%m-%dT%H:%MZ), $(nproc) CPUs, kernel $(uname -r), Qt $qt_version"
echo "client: $client"
echo "kep/this: kepclient's figure divided by this command's (below 1: kepclient needs less)"
echo "times: hyperfine -N, $short_rounds round(s) of ${short[*]} (one-shot)," \
    "$long_rounds of ${long[*]} (large status, scan),"
echo "       median of the round medians; best: the fastest round's median; output to /dev/null"
echo "peak RSS: GNU time %M, median of $rss_runs runs; instructions: callgrind Ir of one run, all threads"
echo "floor-dbus get: QCoreApplication, QDBusConnection::systemBus(), one blocking Properties.Get of Details;"
echo "       print: and one qDebug() line; proxy: and a service proxy made first, as kepclient makes it;"
echo "       floor: a QCoreApplication that starts and exits"
echo "load average: $load_before before the runs, $(cut -d' ' -f1-3 /proc/loadavg) after"
print_section status "one-shot status: Details of $typical_lines lines"
print_section off "one-shot off: SetOffMode (the tools wait for its reply, kepclient for its Ping to the bus)"
print_section large "large status: Details of $large_lines lines (20 000 nested dictionaries)"
print_section scan "scan: ScanResults of 5 000 networks, $scan_lines lines, no scan delay"
echo
echo "The other tools have no one-shot equivalent of scan (call Scan, then wait for"
echo "the ScanResults signal and print it); gdbus monitor prints signals until it is"
echo "interrupted, which is not comparable, so scan is measured for kepclient alone."
echo
echo "## goals (ratios from this run)"
echo
compare "one-shot status, time: kepclient / floor-dbus print" \
    "$(value status 'kepclient status' 3)" "$(value status 'floor-dbus print' 3)" 1.10
compare "one-shot status, peak RSS: kepclient / floor-dbus print" \
    "$(value status 'kepclient status' 6)" "$(value status 'floor-dbus print' 6)" 1.05
compare "large status, time: kepclient / busctl get-property" \
    "$(value large 'kepclient status' 3)" "$(value large 'busctl get-property' 3)" 1.0
echo
echo "For reference:"
echo
compare "one-shot status, instructions: kepclient / floor-dbus print" \
    "$(value status 'kepclient status' 7)" "$(value status 'floor-dbus print' 7)"
compare "one-shot status, time of the fastest rounds: kepclient / floor-dbus print" \
    "$(value status 'kepclient status' 8)" "$(value status 'floor-dbus print' 8)"
compare "large status, time of the fastest rounds: kepclient / busctl" \
    "$(value large 'kepclient status' 8)" "$(value large 'busctl get-property' 8)"
compare "one-shot status, time: kepclient / floor-dbus proxy" \
    "$(value status 'kepclient status' 3)" "$(value status 'floor-dbus proxy' 3)"
compare "one-shot status, time: floor-dbus proxy / floor-dbus print" \
    "$(value status 'floor-dbus proxy' 3)" "$(value status 'floor-dbus print' 3)"
compare "one-shot status, time: kepclient / gdbus call" \
    "$(value status 'kepclient status' 3)" "$(value status 'gdbus call' 3)"
compare "one-shot status, peak RSS: kepclient / gdbus call" \
    "$(value status 'kepclient status' 6)" "$(value status 'gdbus call' 6)"
compare "large status, time: floor-dbus get (fetching only) / busctl" \
    "$(value large 'floor-dbus get' 3)" "$(value large 'busctl get-property' 3)"
