#!/usr/bin/env bash
# Runs the scenario fuzz target under libFuzzer for a bounded time. Its seeds are the fuzz corpus and the
# scenarios of the case tables; what it finds is written to FINDINGS as crash-* files, each of which the
# target (or scenario_replay) reproduces when given it. Nothing else is written outside a scratch directory.
#   fuzz_run.sh TARGET SECONDS FINDINGS TABLE...
set -euo pipefail
target=$1
seconds=$2
findings=$3
shift 3
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/corpus" "$work/seeds" "$findings"
count=0
for table in "$@"; do
    while IFS= read -r line; do
        count=$((count + 1))
        text=${line#& scenario }
        printf '%s' "${text//\\n/$'\n'}" >"$work/seeds/case-$count.gv"
    done < <(grep '^& scenario ' "$table")
done
# New inputs go to the scratch corpus, the first directory; the seeds are only read.
"$target" -dict="$here/gvariant.dict" -max_total_time="$seconds" -artifact_prefix="$findings/" \
    -print_final_stats=1 "$work/corpus" "$here/fuzz" "$work/seeds"
