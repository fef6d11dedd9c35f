#!/usr/bin/env bash
# The project's style as the tools see it: every C++ file as .clang-format has it, the Python
# pycodestyle-clean, and no shell or CMake line over 110 characters. Says what is off and fails if
# anything is.
set -euo pipefail
cd "$(dirname "$0")/.."

max_line=110
failed=0

mapfile -t cpp_files < <(git ls-files '*.cpp' '*.h')
if ! clang-format --dry-run -Werror "${cpp_files[@]}"; then
    failed=1
fi

mapfile -t python_files < <(git ls-files '*.py')
if ! pycodestyle --max-line-length="$max_line" "${python_files[@]}"; then
    failed=1
fi

mapfile -t build_files < <(git ls-files '*.sh' '*.bash' '*.cmake' 'CMakeLists.txt' '*/CMakeLists.txt' \
    '.ci/run' 'debian/rules' 'debian/tests/*')
long_lines=$(awk -v max="$max_line" 'length > max { print FILENAME ":" FNR ": over " max " characters" }' \
    "${build_files[@]}")
if [ -n "$long_lines" ]; then
    echo "$long_lines"
    failed=1
fi

if [ "$failed" -ne 0 ]; then
    echo "style: see doc/HACKING.md; clang-format -i FILE formats a C++ file" >&2
    exit 1
fi
echo "style: ok (clang-format, pycodestyle, lines of at most $max_line characters)"
