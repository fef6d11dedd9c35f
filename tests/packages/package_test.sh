#!/usr/bin/env bash
# Checks what no packaging tool checks in the Debian packages of one architecture, as
# scripts/package.sh makes them: the exact file lists (nothing under dbus-1/ that a bus would read,
# the policy inert under kep-sim's own directory), that gdb finds a function's source line through the
# -dbgsym package's debug information, and the bash completion. lintian checks the rest
# (scripts/test.sh); that kep-sim names the packaged policy, the DEP-8 test systembus (it runs the
# command kep-sim names).
#   tests/packages/package_test.sh DIR ARCHITECTURE VERSION
set -euo pipefail
dir=$1
arch=$2
version=$3
failures=0
fail() {
    echo "package test: FAIL: $*" >&2
    failures=$((failures + 1))
}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# check PACKAGE FILE...: the package's files and links are FILE..., and its -dbgsym package holds the
# program's debug information under its build-id.
check() {
    local package=$1
    local id
    shift
    for name in "$package" "$package-dbgsym"; do
        dpkg-deb -x "$dir/${name}_${version}_$arch.deb" "$work/$name"
    done
    id=$(readelf -n "$work/$package/usr/bin/$package" | sed -n 's/^ *Build ID: *//p')
    diff <(printf '%s\n' "$@" "$package-dbgsym/usr/lib/debug/.build-id/${id:0:2}/${id:2}.debug" \
        "$package-dbgsym/usr/share/doc/$package-dbgsym" | sed "s,^usr/,$package/usr/," | sort) \
        <(cd "$work" && find "$package" "$package-dbgsym" ! -type d | sort) >&2 ||
        fail "$package: files differ from the expected list (< expected, > packaged)"
}
check kepclient usr/bin/kepclient usr/share/man/man1/kepclient.1.gz \
    usr/share/bash-completion/completions/kepclient \
    usr/share/doc/kepclient/copyright usr/share/doc/kepclient/changelog.gz
check kep-sim usr/bin/kep-sim usr/share/man/man1/kep-sim.1.gz \
    usr/share/kep-sim/kep-sim.conf usr/share/kep-sim/com.calyra.kep.xml \
    usr/share/doc/kep-sim/copyright usr/share/doc/kep-sim/changelog.gz

# complete WORDS...: what bash offers for the last word, without bash-completion's helpers.
complete_words() {
    local completion=$work/kepclient/usr/share/bash-completion/completions/kepclient
    bash --norc --noprofile -c '
        source "$1"
        shift
        COMP_WORDS=("$@")
        COMP_CWORD=$(($# - 1))
        _kepclient
        echo "${COMPREPLY[*]}"' - "$completion" "$@"
}
[ "$(complete_words kepclient w)" = "wps wiredip wirelessip" ] || fail "completing 'kepclient w'"
[ "$(complete_words kepclient normal wi)" = "wired wireless" ] || fail "completing 'kepclient normal wi'"
[ "$(complete_words kepclient add Home wpa_psk s3cret Guest u)" = "unsecured" ] ||
    fail "completing a second type"
[ "$(complete_words kepclient softap start "")" = "" ] || fail "completing after 'softap start'"
# gdb, given the stripped kepclient and its dbgsym's debug directory, names the source line of one of
# its functions; without that directory it cannot.
where() {
    gdb-multiarch -batch -nx -iex "set debug-file-directory $1" \
        -ex "info line KepClient::on_kepclient_timeout" "$work/kepclient/usr/bin/kepclient" 2>&1 || true
}
line=$(where "$work/kepclient-dbgsym/usr/lib/debug")
[[ $line =~ Line\ [0-9]+\ of\ \"./client/kepclient.cpp\" ]] || fail "gdb with the debug symbols: $line"
line=$(where "$work/nowhere")
[[ $line != *kepclient.cpp* ]] || fail "gdb names the source without the debug symbols: $line"

if [ "$failures" -ne 0 ]; then
    echo "package test: $arch: $failures failure(s)" >&2
    exit 1
fi
echo "package test: kepclient and kep-sim $version $arch: ok"
