#!/usr/bin/env bash
# test.sh: builds everything and runs every test, first in a plain build, then
# again under AddressSanitizer and UndefinedBehaviorSanitizer.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
"$top/scripts/deps.sh"
jobs=$(($(nproc) * 2))

echo "== plain build"
"$top/scripts/build.sh" "$top/build"
ctest --test-dir "$top/build" -j "$jobs" --output-on-failure --timeout 600

echo "== AddressSanitizer + UndefinedBehaviorSanitizer build"
"$top/scripts/build.sh" "$top/build-asan" -DTOVAK_SANITIZE=ON
ASAN_OPTIONS=${ASAN_OPTIONS:-abort_on_error=0:detect_leaks=1} \
UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1} \
    ctest --test-dir "$top/build-asan" -j "$jobs" --output-on-failure --timeout 900
