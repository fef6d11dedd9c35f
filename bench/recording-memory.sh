#!/usr/bin/env bash
# kep-sim's peak memory for reading a long recording, against the recording's size: a recording of
# N `kepclient status` runs (default 6 000, about 5 MB), made by repeating the steps of one real
# recording, read by `check` and by a `run` whose COMMAND ends at once. The goal is at most 10 times
# the file's size.
# Usage: bench/recording-memory.sh BUILD_DIR [RUNS]
set -euo pipefail
build=$(cd "${1:?usage: bench/recording-memory.sh BUILD_DIR [RUNS]}" && pwd)
runs=${2:-6000}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# One status run, recorded against a kep-sim of its own.
"$build/kep-sim" run -- "$build/kep-sim" record --output "$work/one.gv" -- "$build/kepclient" status \
    2>/dev/null
python3 - "$work/one.gv" "$runs" "$work/long.gv" <<'PYTHON'
import sys
one, runs, out = sys.argv[1], int(sys.argv[2]), sys.argv[3]
text = open(one).read()
first = text.index("'dialog': <")
start = text.index('\n', first) + 1
end = text.index('\n  ]>', start)
steps = text[start:end].strip().rstrip(',')
open(out, 'w').write(text[:start] + ',\n'.join(['    ' + steps] * runs) + text[end:])
PYTHON

size_kib=$(( $(stat -c %s "$work/long.gv") / 1024 ))
peak_kib() { /usr/bin/time -f %M "$@" 2>&1 >/dev/null | tail -n 1; }
check_kib=$(peak_kib "$build/kep-sim" --scenario "$work/long.gv" check)
run_kib=$(peak_kib "$build/kep-sim" --scenario "$work/long.gv" run -- true)
echo "recording of $runs status runs: $size_kib KiB"
echo "check: peak $check_kib KiB, $(( check_kib * 10 / size_kib ))/10 of the file's size"
echo "run:   peak $run_kib KiB, $(( run_kib * 10 / size_kib ))/10 of the file's size"
