#!/usr/bin/env bash
# Installs the Debian 12 packages that building, testing and the demo need: the build dependencies
# debian/control names (apt-get build-dep), and the packages named as arguments.
#   scripts/install-deps.sh [--update] [PACKAGE...]
# Idempotent: prints nothing and touches nothing when all are present (dpkg-checkbuilddeps), unless
# --update asks for the package lists to be read again in any case.
# While another process holds apt's or dpkg's lock (a machine that has just
# booted runs its own updates), it waits for it, at most KEP_APT_LOCK_WAIT
# seconds (default 600), then gives up naming the lock's holder.
set -euo pipefail
cd "$(dirname "$0")/.."

update=0
if [ "${1:-}" = --update ]; then
    update=1
    shift
fi

build_deps=0
if ! command -v dpkg-checkbuilddeps >/dev/null || ! dpkg-checkbuilddeps >/dev/null 2>&1; then
    build_deps=1
fi
missing=()
for p in "$@"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
        missing+=("$p")
    fi
done
[ ${#missing[@]} -eq 0 ] && [ "$build_deps" -eq 0 ] && [ "$update" -eq 0 ] && exit 0

sudo=()
[ "$(id -u)" -eq 0 ] || sudo=(sudo)
wait_s=${KEP_APT_LOCK_WAIT:-600}
deadline=$((SECONDS + wait_s))
apt=("${sudo[@]}" apt-get -q -o Dpkg::Use-Pty=0)
[ "$build_deps" -eq 0 ] || echo "Installing the build dependencies of debian/control" >&2
[ ${#missing[@]} -eq 0 ] || echo "Installing: ${missing[*]}" >&2
export DEBIAN_FRONTEND=noninteractive
log=$(mktemp)
trap 'rm -f "$log"' EXIT

give_up() {
    echo "install-deps: another process still holds the package manager's lock after ${wait_s} s:" >&2
    grep -E '^E:' "$log" >&2
    echo "install-deps: let it finish (or set KEP_APT_LOCK_WAIT to wait longer), then run this again." >&2
    exit 1
}

# apt-get update does not wait for the lock of the package lists: try again
# every two seconds until the deadline. A stale or unreachable index must not
# stop an install that can go ahead without it; the install tells.
until "${apt[@]}" update >"$log" 2>&1; do
    if ! grep -q 'Could not get lock' "$log"; then
        grep -E '^(E|W):' "$log" >&2 || true
        break
    fi
    [ "$SECONDS" -lt "$deadline" ] || give_up
    sleep 2
done
# apt-get waits for dpkg's lock itself, for the time that remains.
run_apt() {
    local remaining=$((deadline - SECONDS))
    [ "$remaining" -gt 0 ] || remaining=1
    if ! "${apt[@]}" -o DPkg::Lock::Timeout="$remaining" -y --no-install-recommends "$@" >"$log" 2>&1; then
        grep -q 'Could not get lock\|Unable to acquire the dpkg frontend lock' "$log" && give_up
        cat "$log" >&2
        echo "install-deps: apt-get $1 failed" >&2
        exit 1
    fi
}
[ "$build_deps" -eq 0 ] || run_apt build-dep ./
[ ${#missing[@]} -eq 0 ] || run_apt install "${missing[@]}"

