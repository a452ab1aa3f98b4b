#!/usr/bin/env bash
# build.sh DIR [CMAKE OPTIONS...]: configures and builds everything into DIR.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
dir=$1
shift
launcher=()
command -v ccache >/dev/null && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
cmake -S "$top" -B "$dir" -G Ninja -DTOVAK_WERROR=ON "${launcher[@]}" "$@" >/dev/null
cmake --build "$dir"
