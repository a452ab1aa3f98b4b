#!/usr/bin/env bash
# format.sh [--check]: formats every tracked C++ file with clang-format-14
# and the repository's .clang-format. --check changes nothing: it lists the
# files that would change, with the number of lines, and fails if any would.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
cd "$top"
fmt=${CLANG_FORMAT:-clang-format-14}
command -v "$fmt" >/dev/null || { echo "format.sh: $fmt not found (apt-get install clang-format-14)" >&2; exit 2; }
check=0
[ "${1:-}" = --check ] && check=1
files=$(git ls-files '*.cpp' '*.h')
if [ $check = 0 ]; then
    # shellcheck disable=SC2086
    "$fmt" -i --style=file $files
    exit 0
fi
changed=0 lines=0
for f in $files; do
    n=$("$fmt" --style=file "$f" | diff "$f" - | grep -c '^[<>]' || true)
    if [ "$n" -gt 0 ]; then
        echo "$f: $n lines"
        changed=$((changed + 1)) lines=$((lines + n))
    fi
done
echo "$changed files, $lines changed lines (removed plus added)"
[ $changed = 0 ]
