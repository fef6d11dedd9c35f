#!/usr/bin/env bash
# Checks both Debian packages of one build: fields, the exact file list (so
# nothing under dbus-1/ that a bus would read), Depends against what each
# program links, the program's architecture, lintian (no error allowed), the
# manual pages (no warning) and the bash completion.
#   tests/package_test.sh DIR ARCHITECTURE VERSION
set -euo pipefail
dir=$1 arch=$2 version=$3
failures=0
fail() { echo "package test: FAIL: $*" >&2; failures=$((failures + 1)); }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
case $arch in armhf) machine="ARM, EABI5" ;; amd64) machine=x86-64 ;; *) machine=$arch ;; esac
multiarch=$(dpkg-architecture -qDEB_HOST_MULTIARCH)

# check PACKAGE "OTHER DEPENDS" FILE...   (the program is usr/bin/PACKAGE)
check() {
    local package=$1 others=$2 deb=$dir/${1}_${version}_$arch.deb binary=$work/$1/usr/bin/$1 description wanted lint
    shift 2
    [ "$(dpkg-deb -f "$deb" Package Version Architecture | sort | tr '\n' ' ')" = \
      "Architecture: $arch Package: $package Version: $version " ] || fail "$deb: $(dpkg-deb -f "$deb")"
    diff <(printf '%s\n' "$@" | sort) <(dpkg-deb -c "$deb" | awk '$1 !~ /^d/ { print substr($6, 3) }' | sort) >&2 ||
        fail "$deb: files differ from the expected list (< expected, > packaged)"
    dpkg-deb -x "$deb" "$work/$package"
    description=$(file -b "$binary")
    [[ $description == *"$machine"* && $description == *", stripped"* ]] || fail "$package: $description"
    # Depends names the package of each library in NEEDED (dpkg names them alike on every architecture).
    wanted=$(for so in $(readelf -d "$binary" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p'); do
        dpkg-query -S "/lib/$multiarch/$so" "/usr/lib/$multiarch/$so" 2>/dev/null | sed -n '1s/:.*//p' || true
    done; printf '%s\n' $others)
    diff <(sort -u <<<"$wanted") <(dpkg-deb -f "$deb" Depends | tr , '\n' | sed 's/(.*)//; s/ //g' | sort -u) >&2 ||
        fail "$deb: Depends is not what $package links (< linked, > Depends)"
    zcat "$work/$package/usr/share/doc/$package/changelog.gz" | head -n 1 | grep -qF "($version)" ||
        fail "$deb: the changelog's latest entry is not $version"
    lint=$(lintian --fail-on error --tag-display-limit 0 "$deb" 2>&1) || fail "$deb: lintian reports errors"
    grep -v '^running with root' <<<"$lint" || true
}

check kepclient "" usr/bin/kepclient usr/share/man/man1/kepclient.1.gz \
    usr/share/bash-completion/completions/kepclient usr/share/doc/kepclient/copyright usr/share/doc/kepclient/changelog.gz
check kep-sim dbus-daemon usr/bin/kep-sim usr/share/man/man1/kep-sim.1.gz \
    usr/share/kep-sim/kep-sim.conf usr/share/kep-sim/com.calyra.kep.xml \
    usr/share/doc/kep-sim/copyright usr/share/doc/kep-sim/changelog.gz
for page in kepclient/usr/share/man/man1/kepclient.1.gz kep-sim/usr/share/man/man1/kep-sim.1.gz; do
    out=$(MANWIDTH=80 man --warnings -l "$work/$page" 2>&1 >/dev/null || echo "man fails")
    [ -z "$out" ] || fail "man -l $page: $out"
done
# complete WORDS...: what bash offers for the last word, without bash-completion's helpers.
complete_words() {
    bash --norc --noprofile -c 'source "$1"; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1))
        _kepclient; echo "${COMPREPLY[*]}"' - "$work/kepclient/usr/share/bash-completion/completions/kepclient" "$@"
}
[ "$(complete_words kepclient w)" = "wps wiredip wirelessip" ] || fail "completing 'kepclient w'"
[ "$(complete_words kepclient normal wi)" = "wired wireless" ] || fail "completing 'kepclient normal wi'"
[ "$(complete_words kepclient add Home wpa_psk s3cret Guest u)" = "unsecured" ] || fail "completing a second type"
[ "$(complete_words kepclient softap start "")" = "" ] || fail "completing after 'softap start'"
# kep-sim's hint, when it cannot own the name, names the packaged policy's directory.
grep -qaF /usr/share/kep-sim "$work/kep-sim/usr/bin/kep-sim" || fail "kep-sim does not name /usr/share/kep-sim"

[ "$failures" -eq 0 ] || { echo "package test: $arch: $failures failure(s)" >&2; exit 1; }
echo "package test: kepclient and kep-sim $version $arch: ok"
