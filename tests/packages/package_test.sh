#!/usr/bin/env bash
# Checks the Debian packages of one architecture, as scripts/package.sh makes
# them: fields, the exact file lists (so nothing under dbus-1/ that a bus
# would read), Depends against what each program links, the program's
# architecture, that it is stripped and hardened as Debian's own programs
# (hardening-check), that its -dbgsym package holds its debug information
# under its build-id and that gdb finds a function's source line through it,
# lintian (no error, no warning), the manual pages (no warning) and the bash
# completion.
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
case $arch in
    armhf) machine="ARM, EABI5" ;;
    amd64) machine=x86-64 ;;
    *) machine=$arch ;;
esac
multiarch=$(dpkg-architecture -qDEB_HOST_MULTIARCH)

# fields DEB FIELD...: the fields' lines, sorted, on one line.
fields() {
    local deb=$1
    shift
    dpkg-deb -f "$deb" "$@" | sort | tr '\n' ' '
}
# files DEB: the package's files and links, one a line, sorted.
files() {
    dpkg-deb -c "$1" | awk '$1 !~ /^d/ { print substr($6, 3) }' | sort
}
lint() {
    local out
    if ! out=$(lintian --fail-on error,warning --tag-display-limit 0 "$1" 2>&1); then
        fail "$1: lintian reports errors or warnings"
    fi
    grep -v '^running with root' <<<"$out" || true
}

# check PACKAGE "OTHER DEPENDS" FILE...   (the program is usr/bin/PACKAGE)
check() {
    local package=$1
    local others=$2
    local deb=$dir/${1}_${version}_$arch.deb
    local binary=$work/$1/usr/bin/$1
    local dbgsym=$dir/${1}-dbgsym_${version}_$arch.deb
    local description
    local wanted
    local id
    local hardening
    local feature
    local depends
    shift 2
    [ "$(fields "$deb" Package Version Architecture)" = \
      "Architecture: $arch Package: $package Version: $version " ] || fail "$deb: $(dpkg-deb -f "$deb")"
    diff <(printf '%s\n' "$@" | sort) <(files "$deb") >&2 ||
        fail "$deb: files differ from the expected list (< expected, > packaged)"
    dpkg-deb -x "$deb" "$work/$package"
    description=$(file -b "$binary")
    [[ $description == *"$machine"* && $description == *", stripped"* ]] || fail "$package: $description"
    hardening=$(hardening-check "$binary" 2>/dev/null || true)
    for feature in "Position Independent Executable" "Stack protected" "Read-only relocations" \
        "Immediate binding"; do
        if ! grep -q "^ $feature: yes" <<<"$hardening"; then
            fail "$package: hardening-check: $(grep "$feature" <<<"$hardening")"
        fi
    done
    if grep -q "Fortify Source functions: no" <<<"$hardening"; then
        fail "$package: compiled without _FORTIFY_SOURCE"
    fi
    # Depends names the package of each library in NEEDED (dpkg names them alike on every architecture).
    wanted=$(for so in $(readelf -d "$binary" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p'); do
        dpkg-query -S "/lib/$multiarch/$so" "/usr/lib/$multiarch/$so" 2>/dev/null | sed -n '1s/:.*//p' || true
    done; printf '%s\n' $others)
    depends=$(dpkg-deb -f "$deb" Depends | tr , '\n' | sed 's/(.*)//; s/ //g' | sort -u)
    diff <(sort -u <<<"$wanted") <(echo "$depends") >&2 ||
        fail "$deb: Depends is not what $package links (< linked, > Depends)"
    zcat "$work/$package/usr/share/doc/$package/changelog.gz" | head -n 1 | grep -qF "($version)" ||
        fail "$deb: the changelog's latest entry is not $version"
    lint "$deb"

    # The debug information, where gdb looks for it by the program's build-id, as Debian's dbgsym packages.
    id=$(readelf -n "$binary" | sed -n 's/^ *Build ID: *//p')
    wanted="Auto-Built-Package: debug-symbols Build-Ids: $id Depends: $package (= $version) "
    wanted+="Package: $package-dbgsym Section: debug "
    [ "$(fields "$dbgsym" Package Depends Section Auto-Built-Package Build-Ids)" = "$wanted" ] ||
        fail "$dbgsym: $(dpkg-deb -f "$dbgsym")"
    diff <(printf '%s\n' "usr/lib/debug/.build-id/${id:0:2}/${id:2}.debug" "usr/share/doc/$package-dbgsym") \
        <(files "$dbgsym") >&2 || fail "$dbgsym: files differ from the expected list (< expected, > packaged)"
    lint "$dbgsym"
}
check kepclient "" usr/bin/kepclient usr/share/man/man1/kepclient.1.gz \
    usr/share/bash-completion/completions/kepclient \
    usr/share/doc/kepclient/copyright usr/share/doc/kepclient/changelog.gz
check kep-sim dbus-daemon usr/bin/kep-sim usr/share/man/man1/kep-sim.1.gz \
    usr/share/kep-sim/kep-sim.conf usr/share/kep-sim/com.calyra.kep.xml \
    usr/share/doc/kep-sim/copyright usr/share/doc/kep-sim/changelog.gz
for page in kepclient/usr/share/man/man1/kepclient.1.gz kep-sim/usr/share/man/man1/kep-sim.1.gz; do
    out=$(MANWIDTH=80 man --warnings -l "$work/$page" 2>&1 >/dev/null || echo "man fails")
    [ -z "$out" ] || fail "man -l $page: $out"
done
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
dpkg-deb -x "$dir/kepclient-dbgsym_${version}_$arch.deb" "$work/dbgsym"
where() {
    gdb-multiarch -batch -nx -iex "set debug-file-directory $1" \
        -ex "info line KepClient::on_kepclient_timeout" "$work/kepclient/usr/bin/kepclient" 2>&1 || true
}
line=$(where "$work/dbgsym/usr/lib/debug")
[[ $line =~ Line\ [0-9]+\ of\ \"./client/kepclient.cpp\" ]] || fail "gdb with the debug symbols: $line"
line=$(where "$work/nowhere")
[[ $line != *kepclient.cpp* ]] || fail "gdb names the source without the debug symbols: $line"
# kep-sim's hint, when it cannot own the name, names the packaged policy's directory.
grep -qaF /usr/share/kep-sim "$work/kep-sim/usr/bin/kep-sim" ||
    fail "kep-sim does not name /usr/share/kep-sim"

if [ "$failures" -ne 0 ]; then
    echo "package test: $arch: $failures failure(s)" >&2
    exit 1
fi
echo "package test: kepclient and kep-sim $version $arch: ok"
