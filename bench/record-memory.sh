#!/usr/bin/env bash
# kep-sim record's peak memory over a session, against its length: RUNS `kepclient status` runs in a row
# under record (default 100, then 1 000), with the built-in Details and with a Details of 300 small
# entries, each session against a kep-sim of its own. The goal: the peak after 1 000 runs within a few
# MiB of the peak after 100, whatever the size of the replies.
# Usage: bench/record-memory.sh BUILD_DIR [RUNS...]
set -euo pipefail
build=$(cd "${1:?usage: bench/record-memory.sh BUILD_DIR [RUNS...]}" && pwd)
shift
runs_list=("$@")
if [ ${#runs_list[@]} -eq 0 ]; then
    runs_list=(100 1000)
fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
entries=()
for index in $(seq 0 299); do
    entries+=("'entry$index': <'value $index'>")
done
large_details="{$(IFS=,; echo "${entries[*]}")}"

# COMMAND under `kep-sim run`: sets Details if given, then records RUNS status runs and prints record's
# peak resident memory in KiB and the recording's size in bytes.
session='
if [ -n "$3" ]; then
    gdbus call --system -d com.calyra.kep -o /com/calyra/kep -m com.calyra.kep.Sim.SetProperty \
        Details "<$3>" >/dev/null
fi
/usr/bin/time -f %M -o "$4" "$0" record --output "$4.gv" -- sh -c "
    run=0
    while [ \$run -lt $2 ]; do
        \"$1\" status 2>/dev/null
        run=\$((run + 1))
    done"
cat "$4" >&2
wc -c <"$4.gv" >&2'

for details in built-in large; do
    value=""
    if [ "$details" = large ]; then
        value=$large_details
    fi
    for runs in "${runs_list[@]}"; do
        {
            read -r peak
            read -r size
        } < <("$build/kep-sim" run -- sh -c "$session" "$build/kep-sim" "$build/kepclient" "$runs" "$value" \
            "$work/peak" 2>&1 >/dev/null | tail -n 2)
        echo "Details $details, $runs status runs: record's peak $peak KiB," \
            "the recording $((size / 1024)) KiB"
    done
done
