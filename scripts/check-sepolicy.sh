#!/usr/bin/env bash
# check-sepolicy.sh AOSP_SEPOLICY_DIR: builds our policy (sepolicy/) into the
# platform's own, as a device build's neverallow check does, for a full-Treble
# device on arm64 and arm, user and userdebug, and runs the platform's checkers
# that the tree carries. Run by a person; it downloads nothing.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
ours=$top/sepolicy
. "$top/scripts/sepolicy-build.sh"
aosp=${1:-}

where="a checkout of Android 14's system/sepolicy, e.g. github LineageOS/android_system_sepolicy branch lineage-21.0 (see android/README.md)"
if [ -z "$aosp" ] || [ ! -f "$aosp/public/te_macros" ] || [ ! -f "$aosp/private/security_classes" ] ||
    [ ! -f "$aosp/tests/sepolicy_tests.py" ] || [ ! -f "$aosp/tools/check_seapp.c" ]; then
    echo "usage: check-sepolicy.sh AOSP_SEPOLICY_DIR: needs $where" >&2
    exit 2
fi
aosp=$(cd "$aosp" && pwd)
for tool in m4 checkpolicy python3 gcc g++; do
    command -v $tool >/dev/null || {
        echo "check-sepolicy.sh: $tool missing (Debian: m4 checkpolicy python3 g++ libsepol-dev libpcre2-dev libselinux1-dev)" >&2
        exit 2
    }
done
for lib in libsepol.a libpcre2-8.so libselinux.so; do
    [ -n "$(find /usr/lib /usr/lib64 -name "$lib" -print -quit 2>/dev/null)" ] || {
        echo "check-sepolicy.sh: $lib missing (Debian: libsepol-dev libpcre2-dev libselinux1-dev)" >&2
        exit 2
    }
done

work=$(mktemp -d)
# TOVAK_KEEP=1 keeps the built policies and checkers for a closer look.
trap '[ -n "${TOVAK_KEEP:-}" ] || rm -rf "$work"' EXIT
[ -z "${TOVAK_KEEP:-}" ] || echo "keeping $work"
step() { echo "== $*"; }
die() {
    echo "FAIL: $*"
    exit 1
}

# The partitions in the order the platform's build lists them, each with
# the folder that holds its files: platform, system_ext, vendor.
dirs=("$aosp/public" "$aosp/private" "$ours/system_ext/public" "$ours/system_ext/private"
    "$aosp/vendor" "$ours/vendor")
# Build-time release flags the tree tests; all off on Android 14.
flags=$(sed -n 's/^ *"\(RELEASE_[A-Z0-9_]*\)",$/\1/p' "$aosp/flagging/Android.bp" 2>/dev/null || true)

# explain LOG: our lines behind each neverallow violation checkpolicy reports.
explain() {
    local src tgt cls
    sed -n 's/.*violated by allow \([^ ]*\) \([^:]*\):\([^ ]*\) .*/\1 \2 \3/p' "$1" | sort -u |
        while read -r src tgt cls; do
            grep -rnwH -e "$cls" "$ours" --include='*.te' | grep -v ':[0-9]*: *#' | grep -w -e "$tgt" |
                grep -w -e "$src" -e self -e "$tgt" | sed "s|^$top/|  ours: |" || true
        done
}

te_flags=""
[ -f "$aosp/flagging/te_macros" ] && te_flags=$aosp/flagging/te_macros
mapfile -t files < <(sepolicy_files "$te_flags" "${dirs[@]}")
for arch in arm64 arm; do
    for variant in user userdebug; do
        step "policy for $arch $variant: m4 and checkpolicy -M -c 30 over ${#files[@]} files"
        mapfile -t defs < <(sepolicy_m4defs $variant $arch $flags)
        conf=$work/policy.$arch.$variant.conf
        m4 --fatal-warnings "${defs[@]}" -s "${files[@]}" >"$conf" 2>"$work/m4.log" ||
            die "m4: $(cat "$work/m4.log")"
        if ! checkpolicy -M -c 30 -o "$work/policy.$arch.$variant" "$conf" >"$work/cp.log" 2>&1; then
            grep -v '^checkpolicy:  loading\|^checkpolicy:  policy configuration loaded' "$work/cp.log" |
                sed "s|$aosp/|platform:|g; s|$top/||g"
            explain "$work/cp.log"
            die "the policy does not build for $arch $variant"
        fi
    done
done
policy=$work/policy.arm64.user

step "building the platform's checkers from the tree"
mkdir -p "$work/inc/android-base" "$work/bin"
# sepol_wrap.cpp includes two libbase headers it does not use.
echo '#include <memory>' >"$work/inc/android-base/file.h"
: >"$work/inc/android-base/strings.h"
g++ -shared -fPIC -O1 -I"$aosp/tests/include" -I"$work/inc" -o "$work/bin/libsepolwrap.so" \
    "$aosp/tests/sepol_wrap.cpp" -l:libsepol.a || die "libsepolwrap did not build"
gcc -O1 -DPCRE2_CODE_UNIT_WIDTH=8 -DLINK_SEPOL_STATIC -o "$work/bin/checkseapp" \
    "$aosp/tools/check_seapp.c" -l:libsepol.a -lpcre2-8 || die "checkseapp did not build"
gcc -O1 -o "$work/bin/checkfc" "$aosp/tools/checkfc.c" -lselinux -l:libsepol.a || die "checkfc did not build"

# contexts OUT FILE...: context files as the build makes them, through m4.
mapfile -t defs < <(sepolicy_m4defs user arm64 $flags)
contexts() {
    local out=$1
    shift
    m4 --fatal-warnings "${defs[@]}" -s "$@" >"$out"
}
contexts "$work/plat_file_contexts" "$aosp/private/file_contexts"
contexts "$work/system_ext_file_contexts" "$ours/system_ext/private/file_contexts"
contexts "$work/vendor_file_contexts" "$aosp/vendor/file_contexts" "$ours/vendor/file_contexts"

step "checkfc: our file_contexts against the policy"
for fc in system_ext vendor; do
    "$work/bin/checkfc" "$policy" "$work/${fc}_file_contexts" || die "checkfc refuses sepolicy/$fc's file_contexts"
done
# run_sepolicy_tests [-t TEST]: the platform's tests on types, with every
# partition's file_contexts.
run_sepolicy_tests() {
    (cd "$aosp/tests" && LIBSEPOLWRAP=$work/bin/libsepolwrap.so python3 -c '
import os, sys
sys.argv = ["sepolicy_tests"] + sys.argv[1:]
import sepolicy_tests
sepolicy_tests.do_main(os.environ["LIBSEPOLWRAP"])
' -f "$work/plat_file_contexts" -f "$work/system_ext_file_contexts" -f "$work/vendor_file_contexts" \
        -p "$policy" "$@")
}
step "sepolicy_tests: types of files, properties and domains"
run_sepolicy_tests || die "the platform's sepolicy_tests refuse the policy"
# Run by the build where the device asks for it; ours must pass it anyway.
step "sepolicy_tests -t TestDevTypeViolations: types under /dev"
run_sepolicy_tests -t TestDevTypeViolations || die "the platform's sepolicy_tests refuse a type under /dev"

step "checkseapp: our seapp_contexts against the platform's neverallows"
contexts "$work/seapp.m4out" "$aosp/private/seapp_contexts"
grep -ihe '^neverallow' "$work/seapp.m4out" >"$work/seapp_neverallow" || true
contexts "$work/system_ext_seapp_contexts" "$ours/system_ext/private/seapp_contexts"
"$work/bin/checkseapp" -p "$policy" -o "$work/seapp.out" "$work/system_ext_seapp_contexts" \
    "$work/seapp_neverallow" || die "checkseapp refuses sepolicy/system_ext/private/seapp_contexts"

step "check_prop_prefix: a vendor property_contexts holds only vendor names"
if [ -f "$ours/vendor/property_contexts" ]; then
    python3 "$aosp/tests/check_prop_prefix.py" --property-contexts "$ours/vendor/property_contexts" \
        --allowed-property-prefix ctl.odm. ctl.vendor. 'ctl.start$odm.' 'ctl.start$vendor.' 'ctl.stop$odm.' \
        'ctl.stop$vendor.' init.svc.odm. init.svc.vendor. ro.boot. ro.hardware. ro.odm. ro.vendor. odm. \
        persist.odm. persist.vendor. vendor. --allowed-context-prefix vendor_ odm_ --strict ||
        die "check_prop_prefix refuses sepolicy/vendor/property_contexts"
else
    echo "no vendor property_contexts: persist.dmlogging. is declared on the system side"
fi

echo "sepolicy: builds into $(basename "$aosp") for arm64 and arm, user and userdebug; every checker passes"
