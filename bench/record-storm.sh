#!/usr/bin/env bash
# kep-sim record and replay over a storm of signals: a WPS run whose service sends PASSES ScanResults
# back to back (default 20 000), then its error, recorded against a kep-sim of its own and replayed with
# no service. Prints how long `kepclient wps` took in each. The goal: the replay within 10 % of the
# recording, since each step's delay is counted from the start of the session and the replay's timers from
# the first of a run of signals.
# Usage: bench/record-storm.sh BUILD_DIR [PASSES]
set -euo pipefail
build=$(cd "${1:?usage: bench/record-storm.sh BUILD_DIR [PASSES]}" && pwd)
passes=${2:-20000}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
printf "{'wps': <{'scan-passes': <uint32 %d>, 'step-ms': <uint32 0>, 'error': <'PBC overlap'>}>}" "$passes" \
    >"$work/storm.gv"

# COMMAND: `kepclient wps`, its length in milliseconds on standard error.
timed='start=$(date +%s%N); "$0" wps 2>/dev/null; end=$(date +%s%N); echo $(((end - start) / 1000000)) >&2'
recorded=$("$build/kep-sim" --scenario "$work/storm.gv" run -- \
    "$build/kep-sim" record --keep-secrets --output "$work/storm-recording.gv" -- \
    sh -c "$timed" "$build/kepclient" 2>&1 | tail -n 1)
replayed=$("$build/kep-sim" --scenario "$work/storm-recording.gv" run -- \
    sh -c "$timed" "$build/kepclient" 2>&1 | tail -n 1)
echo "a storm of $passes signals: kepclient wps took $recorded ms under record, $replayed ms in the replay"
