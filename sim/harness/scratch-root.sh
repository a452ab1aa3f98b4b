#!/usr/bin/env bash
# scratch-root.sh [--rw DIR]... [--] CMD ARGS...: runs CMD where the device
# paths the daemon's code uses (/data, /sdcard, /system, /dev/log, /tmp) are
# empty scratch directories and everything else is read-only, so that code
# linked into a test or a fuzzer can never touch the real ones. Each --rw DIR
# stays writable (a fuzzer's corpus and crash directory).
set -euo pipefail
rw=()
while [ $# -gt 0 ]; do
    case $1 in
    --rw) mkdir -p "$2"; rw+=(--bind "$(realpath "$2")" "$(realpath "$2")"); shift 2 ;;
    --) shift; break ;;
    *) break ;;
    esac
done
[ $# -gt 0 ] || { echo "usage: $0 [--rw DIR]... [--] CMD ARGS..." >&2; exit 2; }
# The host's top level, read-only, minus what the scratch tree replaces (the
# host may have no /data to mount over).
host=()
for entry in /*; do
    case $entry in
    /data | /sdcard | /system | /tmp | /dev | /proc) ;;
    *) if [ -L "$entry" ]; then host+=(--symlink "$(readlink "$entry")" "$entry");
       else host+=(--ro-bind "$entry" "$entry"); fi ;;
    esac
done
# A checkout, build or working directory under the host's /tmp stays
# visible, read-only, above the scratch /tmp.
keep=()
top=$(realpath "$(dirname "$0")/../..")
cmd=$(command -v "$1" || true)
for path in "$top" "$(pwd -P)" ${cmd:+"$(dirname "$(realpath "$cmd")")"}; do
    case $path in
    /tmp/*) keep+=(--ro-bind "$path" "$path") ;;
    esac
done
exec bwrap "${host[@]}" --dev /dev --proc /proc \
    --tmpfs /tmp --tmpfs /data --tmpfs /system --tmpfs /dev/log \
    --dir /data/media/0 --dir /data/local --dir /data/property --dir /system/etc \
    --symlink /data/media/0 /sdcard \
    "${keep[@]}" "${rw[@]}" --setenv TMPDIR /tmp --setenv TOVAK_SCRATCH_ROOT 1 \
    --die-with-parent --unshare-pid -- "$@"
