#!/usr/bin/env bash
# The release packages are reproducible: builds the packages of this machine's architecture again, with
# scripts/package.sh in a clone of the same commit at another path, one with a blank, and compares them
# byte for byte with those in DIR; on a difference diffoscope names it. DIR's packages must come from the
# commit as it is: when the work tree has changes, they are built from a first clone too.
#   tests/packages/reproducible_test.sh DIR ARCHITECTURE
set -euo pipefail
dir=$(realpath "$1")
arch=$2
failures=0
shown_lines=60 # of diffoscope's report
repo=$(git rev-parse --show-toplevel)
commit=$(git -C "$repo" rev-parse HEAD)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# package CLONE: the commit cloned into CLONE, and its packages built there.
package() {
    git clone -q --no-checkout "$repo" "$1"
    git -C "$1" checkout -q --detach "$commit"
    "$1/scripts/package.sh" "$arch" >/dev/null
}
if [ -n "$(git -C "$repo" status --porcelain --untracked-files=no)" ]; then
    echo "reproducible test: the work tree has changes; the first build is from a clone too"
    package "$work/first/kepclient"
    dir=$work/first/kepclient/dist
fi
package "$work/with blank/kepclient"
second=$work/with\ blank/kepclient/dist

if ! diff <(cd "$dir" && ls -- *_"$arch".deb) <(cd "$second" && ls -- *_"$arch".deb) >&2; then
    echo "reproducible test: FAIL: not the same packages (< $dir, > $second)" >&2
    exit 1
fi
for deb in "$dir"/*_"$arch".deb; do
    name=$(basename "$deb")
    if ! cmp -s "$deb" "$second/$name"; then
        echo "reproducible test: FAIL: $name differs between the two builds:" >&2
        failures=$((failures + 1))
        "$repo/scripts/install-deps.sh" diffoscope-minimal
        # diffoscope ends with status 1 when the files differ, as they do here
        diffoscope --text - "$deb" "$second/$name" | head -n "$shown_lines" >&2 || true
    fi
done
if [ "$failures" -ne 0 ]; then
    exit 1
fi
packages=$(cd "$dir" && ls -- *_"$arch".deb | wc -l)
echo "reproducible test: $packages packages ($arch) built twice at two paths: byte-identical"
