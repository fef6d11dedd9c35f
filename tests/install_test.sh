#!/usr/bin/env bash
# Installs a build tree into a temporary prefix and checks what arrives there:
# every file in its place and equal to its source, the programs run, the
# manual page renders, the bash completion offers the expected words and
# dbus-daemon accepts the bus policy.
#
#   install_test.sh BUILD_DIR [CMAKE]
set -euo pipefail

build=${1:?usage: install_test.sh BUILD_DIR [CMAKE]}
cmake=${2:-cmake}
source_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

failures=0
fail() { echo "install_test: FAIL: $*" >&2; failures=$((failures + 1)); }
die() { echo "install_test: FAIL: $*" >&2; exit 1; }
ok() { echo "install_test: ok: $*"; }

work=$(mktemp -d -t kep-install-test.XXXXXX)
prefix=$work/prefix
bus_pid=""
cleanup() {
    if [ -n "$bus_pid" ]; then
        kill "$bus_pid" 2>/dev/null || true
    fi
    rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 1' HUP INT TERM

# Output of our own programs must not be reshaped by Qt's logging settings.
unset QT_MESSAGE_PATTERN QT_LOGGING_RULES
export LC_ALL=C.UTF-8

[ -d "$build" ] || die "no build directory: $build"

# --- install ------------------------------------------------------------------
if ! "$cmake" --install "$build" --prefix "$prefix" >"$work/install.log" 2>&1; then
    cat "$work/install.log" >&2
    die "cmake --install $build --prefix $prefix failed"
fi
ok "cmake --install into a temporary prefix"

# --- files --------------------------------------------------------------------
expect_file() { # path-in-prefix [source to compare with]
    local path=$prefix/$1
    if [ ! -f "$path" ]; then
        fail "not installed: $1"
        return
    fi
    if [ $# -ge 2 ] && ! cmp -s "$path" "$2"; then
        fail "$1 differs from ${2#"$source_dir"/}"
        return
    fi
    ok "installed: $1"
}
expect_program() { # path-in-prefix
    if [ ! -f "$prefix/$1" ] || [ ! -x "$prefix/$1" ]; then
        fail "not installed as an executable: $1"
        return
    fi
    ok "installed: $1"
}

expect_program bin/kepclient
# kep-sim is expected wherever the build tree has an install rule for it.
expect_sim=no
if grep -rqsF --include=cmake_install.cmake '/kep-sim"' "$build"; then
    expect_sim=yes
    expect_program bin/kep-sim
fi
expect_file share/dbus-1/interfaces/com.calyra.kep.xml "$source_dir/service/com.calyra.kep.xml"
expect_file share/dbus-1/system.d/com.calyra.kep.conf "$source_dir/dbus/com.calyra.kep.conf"
expect_file share/man/man1/kepclient.1 "$source_dir/doc/kepclient.1"
expect_file share/bash-completion/completions/kepclient "$source_dir/completion/kepclient.bash"

# --- the installed programs run -------------------------------------------------
if [ -x "$prefix/bin/kepclient" ]; then
    # No bus is needed for "help"; point the client at one that does not exist.
    help_text=$(DBUS_SYSTEM_BUS_ADDRESS="unix:path=$work/no-bus" "$prefix/bin/kepclient" help 2>&1 >/dev/null) \
        || fail "installed kepclient help exited with status $?"
    first_line=${help_text%%$'\n'*}
    case $first_line in
    *": Usage:") ok "installed kepclient prints its usage text" ;;
    *) fail "installed kepclient help: unexpected first line: $first_line" ;;
    esac
fi
if [ "$expect_sim" = yes ] && [ -x "$prefix/bin/kep-sim" ]; then
    if "$prefix/bin/kep-sim" --version >"$work/sim-version" 2>&1; then
        ok "installed kep-sim runs: $(head -n 1 "$work/sim-version")"
    else
        fail "installed kep-sim --version failed: $(cat "$work/sim-version")"
    fi
fi

# --- manual page --------------------------------------------------------------
page=$prefix/share/man/man1/kepclient.1
if ! command -v man >/dev/null 2>&1; then
    fail "man is not available (package man-db) to render $page"
elif [ -f "$page" ]; then
    if MANWIDTH=80 MANPAGER=cat PAGER=cat man --warnings -l "$page" >"$work/page.txt" 2>"$work/page.err"; then
        if [ -s "$work/page.err" ]; then
            fail "man reports warnings for the installed page:"
            cat "$work/page.err" >&2
        else
            ok "man -l renders the installed page without warnings"
        fi
        # Each command word starts its own entry under COMMANDS.
        sed -n '/^COMMANDS/,/^OUTPUT/p' "$work/page.txt" >"$work/commands.txt"
        for word in help status off normal softap scan wps add wiredip wirelessip loglevel; do
            if ! grep -Eq "^ {7}$word( |\$)" "$work/commands.txt"; then
                fail "rendered page has no entry for the command word '$word'"
            fi
        done
        for text in "SYNOPSIS" "EXIT STATUS" "ENVIRONMENT" "DBUS_SYSTEM_BUS_ADDRESS" \
                    "kepclient: Timeout reached, exiting..." "Wps Error:" ": Usage:"; do
            grep -qF -- "$text" "$work/page.txt" || fail "rendered page lacks: $text"
        done
        ok "rendered page checked for its command words and sections"
    else
        fail "man -l could not render the installed page: $(cat "$work/page.err")"
    fi
fi

# --- bash completion ----------------------------------------------------------
completion=$prefix/share/bash-completion/completions/kepclient
if [ -f "$completion" ]; then
    # A bare shell: nothing from the bash-completion package is loaded, so a
    # completion that relied on its helpers would fail here.
    if bash --norc --noprofile -s "$completion" >"$work/completion.out" 2>&1 <<'SHELL'
set -u
if declare -F _init_completion >/dev/null; then
    echo "the shell already has bash-completion helpers; the test would prove nothing"
    exit 2
fi
source "$1"
registered=$(complete -p kepclient 2>/dev/null) || { echo "no completion registered for kepclient"; exit 2; }
function=$(sed -n 's/.* -F \([^ ]*\) .*/\1/p' <<<"$registered")
[ -n "$function" ] || { echo "no completion function in: $registered"; exit 2; }

bad=0
# check "EXPECTED WORDS" WORD... : the last word is the one being completed.
check() {
    local expected=$1
    shift
    COMP_WORDS=("$@")
    COMP_CWORD=$(($# - 1))
    COMP_LINE="$*"
    COMP_POINT=${#COMP_LINE}
    COMPREPLY=()
    "$function" "${COMP_WORDS[0]}" "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}"
    local got="${COMPREPLY[*]}"
    if [ "$got" != "$expected" ] || [ ${#COMPREPLY[@]} -ne $(wc -w <<<"$expected") ]; then
        echo "completing [$*]: expected [$expected], got [$got]"
        bad=$((bad + 1))
    fi
}
check "help status off normal softap scan wps add wiredip wirelessip loglevel" kepclient ""
check "wps wiredip wirelessip" kepclient w
check "status softap scan" kepclient s
check "loglevel" kepclient l
check "" kepclient x
check "automatic wired wireless hybrid" kepclient normal ""
check "wired wireless" kepclient normal wi
check "" kepclient normal wired ""
check "start stop" kepclient softap ""
check "start stop" kepclient softap st
check "stop" kepclient softap sto
check "" kepclient softap start ""
check "" kepclient add ""
check "unsecured wep_key wpa_psk" kepclient add Home ""
check "wep_key wpa_psk" kepclient add Home w
check "" kepclient add Home wpa_psk ""
check "unsecured wep_key wpa_psk" kepclient add Home wpa_psk s3cret Guest ""
check "unsecured" kepclient add Home wpa_psk s3cret Guest unsecured none Cafe u
check "" kepclient add Home wpa_psk s3cret Guest unsecured ""
check "" kepclient scan ""
check "" kepclient wiredip ""
check "" kepclient loglevel ""
check "" kepclient help ""
check "" kepclient bogus ""
exit "$bad"
SHELL
    then
        ok "bash completion offers the expected words"
    else
        fail "bash completion:"
        cat "$work/completion.out" >&2
    fi
fi

# --- bus policy ---------------------------------------------------------------
policy=$prefix/share/dbus-1/system.d/com.calyra.kep.conf
if ! command -v dbus-daemon >/dev/null 2>&1; then
    fail "dbus-daemon is not available to check $policy"
elif [ -f "$policy" ]; then
    cat >"$work/bus.conf" <<EOF
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:dir=$work</listen>
  <auth>EXTERNAL</auth>
  <include>$policy</include>
</busconfig>
EOF
    if dbus-daemon --config-file="$work/bus.conf" --fork --print-address=1 --print-pid=1 \
        >"$work/bus.out" 2>"$work/bus.err"; then
        bus_pid=$(sed -n 2p "$work/bus.out")
        ok "dbus-daemon accepts the installed bus policy"
    else
        fail "dbus-daemon refuses the installed bus policy: $(cat "$work/bus.err")"
    fi
fi

if [ "$failures" -ne 0 ]; then
    echo "install_test: $failures check(s) failed" >&2
    exit 1
fi
echo "install_test: all checks passed"
