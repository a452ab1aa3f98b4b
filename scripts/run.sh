#!/usr/bin/env bash
# run.sh [ROOT] [tovak-sim up options]: builds everything and runs tovakd on a
# simulated device rooted at ROOT (default ./device) until Ctrl-C. Options may
# come before or after ROOT.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
root=
skip=0
for a in "$@"; do
    if [ $skip = 1 ]; then
        skip=0
    else
        case $a in
        --without-log | --etc | --daemon | --daemon-wrapper | --daemon-nofile | --restart-delay) skip=1 ;;
        -*) ;;
        *) root=$a ;;
        esac
    fi
done
[ -n "$root" ] || set -- "$top/device" "$@"
"$top/scripts/deps.sh"
"$top/scripts/build.sh" "$top/build" >/dev/null
echo "tovakd on a simulated device at ${root:-$top/device}; clients connect to ${root:-$top/device}/dev/ps_socket/tovak (Ctrl-C stops it)" >&2
exec "$top/build/bin/tovak-sim" up "$@"
