#!/usr/bin/env bash
# Prints the Debian mirror this machine's apt takes SUITE's packages from, as its own configuration
# says (sources.list, sources.list.d, a local mirror or a proxy's address alike), without a trailing
# slash. Prints nothing and fails when apt knows no such source.
#   scripts/apt-mirror.sh [SUITE]     SUITE: bookworm unless given
set -euo pipefail
suite=${1:-bookworm}
# Each index apt reads, with the repository it comes from; the main archive's Packages index of the
# suite names the mirror.
mirror=$(apt-get indextargets --format '$(REPO_URI)' "Release: $suite" 'Identifier: Packages' 2>/dev/null |
    sort -u | head -n 1)
if [ -z "$mirror" ]; then
    echo "apt-mirror: apt has no source for $suite" >&2
    exit 1
fi
echo "${mirror%/}"
