#!/usr/bin/env bash
# build.sh DIR [CMAKE OPTIONS...]: configures and builds everything into DIR.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
dir=$1
shift
cmake -S "$top" -B "$dir" -G Ninja "$@" >/dev/null
cmake --build "$dir"
