#!/usr/bin/env bash
# run.sh [ROOT] [tovak-sim up options]: builds everything and runs tovakd on a
# simulated device rooted at ROOT (default ./device) until Ctrl-C.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
"$top/scripts/deps.sh"
"$top/scripts/build.sh" "$top/build" >/dev/null
root=${1:-$top/device}
[ $# -gt 0 ] && shift
echo "tovakd on a simulated device at $root; clients connect to $root/dev/ps_socket/tovak (Ctrl-C stops it)" >&2
exec "$top/build/bin/tovak-sim" up "$root" "$@"
