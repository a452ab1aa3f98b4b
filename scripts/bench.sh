#!/usr/bin/env bash
# bench.sh [--json | --markdown] [--quick] [--only SECTION,...] [--faults]: builds a
# Release tree (build-release) and prints the benchmark table: each figure
# of tovakd, its baseline measured in the same run, the ratio and the goal.
# A few minutes on two cores; not part of the tests.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
dir=${TOVAK_BENCH_BUILD:-$top/build-release}
"$top/scripts/deps.sh" >&2
launcher=()
command -v ccache >/dev/null && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
# No -Werror here: a compiler's new warning must not stop a measurement.
cmake -S "$top" -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=Release "${launcher[@]}" >/dev/null
# Only what the benchmark runs; its output stays off stdout for --json.
cmake --build "$dir" --target tovak-bench >&2
exec "$dir/bin/tovak-bench" "$@"
