#!/usr/bin/env bash
# Installs a build tree into a temporary prefix: both manual pages render
# without warnings, and the bash completion offers the expected words in a
# shell without bash-completion's helpers. (What goes where: package_test.sh.)
#   install_test.sh BUILD_DIR [CMAKE]
set -euo pipefail
build=$1 cmake=${2:-cmake}
failures=0
fail() { echo "install test: FAIL: $*" >&2; failures=$((failures + 1)); }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
"$cmake" --install "$build" --prefix "$work" >"$work/log" 2>&1 || { cat "$work/log" >&2; exit 1; }

for page in kepclient kep-sim; do
    out=$(MANWIDTH=80 man --warnings -l "$work/share/man/man1/$page.1.gz" 2>&1 >/dev/null || echo "man fails")
    [ -z "$out" ] || fail "man -l $page.1.gz: $out"
done
# complete WORDS...: what bash offers for the last word.
complete_words() {
    bash --norc --noprofile -c 'source "$1"; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1))
        _kepclient; echo "${COMPREPLY[*]}"' - "$work/share/bash-completion/completions/kepclient" "$@"
}
[ "$(complete_words kepclient w)" = "wps wiredip wirelessip" ] || fail "completing 'kepclient w'"
[ "$(complete_words kepclient normal wi)" = "wired wireless" ] || fail "completing 'kepclient normal wi'"
[ "$(complete_words kepclient add Home wpa_psk s3cret Guest u)" = "unsecured" ] || fail "completing a second network's type"
[ "$(complete_words kepclient softap start "")" = "" ] || fail "completing after 'softap start'"

[ "$failures" -eq 0 ] || { echo "install test: $failures failure(s)" >&2; exit 1; }
echo "install test: manual pages and completion: ok"
