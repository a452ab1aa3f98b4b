#!/usr/bin/env bash
# sepolicy_test.sh TOP [EXTRA.te]: builds tovakd's SELinux policy (TOP/sepolicy)
# into a stand-in of Android 14's platform policy as a device build does, and
# checks it against what the daemon does on the phone: the label of every path
# it opens, creates or executes, the access it needs there (or its absence,
# where the platform forbids it), its properties, the labels the .rc and the
# context files name, and who may connect to its socket. EXTRA.te, when given,
# is added as a device's own policy, and the test must then fail.
set -euo pipefail
top=$1
extra=${2:-}
stub=$top/tests/device/sepolicy-stub
pol=$top/sepolicy
. "$top/scripts/sepolicy-build.sh"

for tool in m4 checkpolicy sesearch seinfo; do
    if ! command -v $tool >/dev/null; then
        echo "SKIP: $tool missing (Debian packages m4, checkpolicy, setools)"
        exit 77
    fi
done

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0
fail() {
    echo "FAIL: $*"
    failures=$((failures + 1))
}

# compile OUT VARIANT [DEVICE_DIR]: the platform's folders, ours in the
# partitions they name, and a device's own folder last, through m4 with the
# build's definitions, then checkpolicy; its words in OUT.log.
compile() {
    local out=$1 variant=$2 defs files
    shift 2
    mapfile -t defs < <(sepolicy_m4defs "$variant" arm64)
    mapfile -t files < <(sepolicy_files "" "$stub/public" "$stub/private" "$pol/system_ext/public" \
        "$pol/system_ext/private" "$stub/vendor" "$pol/vendor" "$@")
    m4 --fatal-warnings "${defs[@]}" -s "${files[@]}" >"$out.conf" 2>"$out.log" &&
        checkpolicy -M -c 30 -o "$out" "$out.conf" >"$out.log" 2>&1
}

if [ -n "$extra" ]; then
    mkdir "$work/device"
    cp "$extra" "$work/device/device.te"
    set -- "$work/device"
fi
for variant in userdebug user; do
    if ! compile "$work/policy" $variant "$@"; then
        cat "$work/policy.log"
        echo "FAIL: the policy does not compile ($variant)"
        exit 1
    fi
done
policy=$work/policy

# Every type with its attributes, one line each: NAME ATTR...
seinfo -t -x "$policy" | sed -n 's/^ *type \([^,;]*\)[,;]\(.*\);$/\1 \2/p' | tr -d , >"$work/types"
# tovakd's allow rules, one permission a line: TARGET CLASS PERM.
sesearch -A -s tovakd "$policy" |
    sed -n 's/^allow [^ ]* \([^:]*\):\([^ ]*\) \(.*\);$/\1 \2 \3/p' | tr -d '{}' |
    awk '{ for (i = 3; i <= NF; i++) print $1, $2, $i }' >"$work/allowed"
# tovakd's type transitions: PARENT CLASS NEW [NAME].
sesearch -T -s tovakd "$policy" |
    sed -n 's/^type_transition [^ ]* \([^:]*\):\([^ ]*\) \([^ ;]*\) *\([^;]*\);$/\1 \2 \3 \4/p' >"$work/transitions"

declared() { grep -q "^$1\( \|$\)" "$work/types"; }
has_attr() { grep -q "^$1 .*\<$2\>" "$work/types"; }

# The domain tovakd may act on as TYPE: the type, an attribute holding it,
# or self.
granted() {
    local type=$1 class=$2 perm=$3 target
    while read -r target; do
        [ "$target" = "$type" ] && return 0
        [ "$target" = self ] && [ "$type" = tovakd ] && return 0
        has_attr "$type" "$target" && return 0
    done < <(awk -v c="$class" -v p="$perm" '$2 == c && $3 == p { print $1 }' "$work/allowed")
    return 1
}

# The label file_contexts gives PATH: the last matching entry, the
# platform's first, ours after them, as the platform's sorting puts the more
# specific entries last.
fc_label() {
    local path=$1 re ctx label=""
    while read -r re ctx; do
        case $re in "" | \#*) continue ;; esac
        if [[ $path =~ ^($re)$ ]]; then
            label=$(cut -d: -f3 <<<"$ctx")
        fi
    done < <(cat "$stub/private/file_contexts" "$pol/system_ext/private/file_contexts" \
        "$stub/vendor/file_contexts" "$pol/vendor/file_contexts")
    echo "$label"
}

# The label PATH has on the phone: a /proc/PID entry has its process's
# domain (init stands for any), /proc and /sdcard are labelled by their
# filesystems, the rest by file_contexts.
label_of() {
    case $1 in
    /proc/[0-9]*) echo init ;;
    /proc/stat) echo proc_stat ;;
    /proc | /proc/*) echo proc ;;
    /sdcard | /sdcard/*) echo fuse ;;
    *) fc_label "$1" ;;
    esac
}

# The label a file the daemon creates at PATH gets: a type transition on
# its directory (by name first), else the directory's label. A name ending
# in "/" stands for a file made without one (O_TMPFILE).
created_label() {
    local path=$1 class=$2 parent name new
    case $path in */) parent=$(label_of "${path%/}") name="" ;;
    *) parent=$(label_of "$(dirname "$path")") name=$(basename "$path") ;;
    esac
    new=""
    [ -z "$name" ] || new=$(awk -v p="$parent" -v c="$class" -v n="$name" \
        '$1 == p && $2 == c && $4 == n { print $3; exit }' "$work/transitions")
    [ -n "$new" ] || new=$(awk -v p="$parent" -v c="$class" \
        '$1 == p && $2 == c && NF == 3 { print $3; exit }' "$work/transitions")
    echo "${new:-$parent}"
}

# What the daemon does on the phone. yes: the daemon makes the file, so its
# label comes from the directory it is made in; no: it is there; refused:
# Android 14 has no legal rule for it, or (/dev) it is only reached through
# the log devices Android 14 lacks, and the policy must not grant it
# (android/README.md says what the daemon does instead). Saves write a
# temporary file of any name beside their target, or one with none.
# path                                         class      permissions                          created
accesses="
/system_ext/bin/tovakd                         file       entrypoint,read,execute              no
/dev/ps_socket                                 dir        search,add_name,remove_name,write    no
/dev/ps_socket/tovak                           sock_file  create,unlink,getattr,setattr        yes
/dev/diag                                      chr_file   open,read,write,ioctl                no
/dev/log                                       dir        open,read,search                     refused
/dev                                           dir        open,read                            refused
/system/etc/dm.cfg                             file       open,read                            no
/system/etc/EventID.txt                        file       open,read                            no
/system/etc/LogItem.txt                        file       open,read                            no
/system/etc/MessageLevel.txt                   file       open,read                            no
/data/media/0/dm.cfg                           file       create,open,read,write,rename        yes
/data/media/0/.dm.cfg.tmp                      file       create,open,write,rename,unlink      yes
/data/media/0/.dm.cfg.Xq3Zr9                   file       create,open,write,rename,unlink      yes
/data/media/0/                                 file       create,open,write                    yes
/data/local/EventID.txt                        file       create,open,read,write,rename        yes
/data/local/LogItem.txt                        file       create,open,read,write,rename        yes
/data/local/MessageLevel.txt                   file       create,open,read,write,rename        yes
/data/local/.EventID.txt.tmp                   file       create,open,write,rename,unlink      yes
/data/local/.LogItem.txt.k2Jw0b                file       create,open,write,rename,unlink      yes
/data/local/                                   file       create,open,write                    yes
/sdcard/dm.cfg                                 file       create,open,read,write,rename        yes
/sdcard/.dm.cfg.tmp                            file       create,open,write,rename,unlink      yes
/sdcard/syslog                                 dir        create,add_name,search,write         yes
/sdcard/syslog/adbmain_20121221_120000.log     file       create,open,write                    yes
/data/media/0/syslog                           dir        create,add_name,search,write         yes
/data/media/0/syslog/adbmain_20121221_120000.log file     create,open,write                    yes
/proc                                          dir        open,read,search                     no
/proc/stat                                     file       open,read                            no
/proc/1                                        dir        search                               no
/proc/1/exe                                    lnk_file   read                                 no
/proc/1/stat                                   file       open,read                            no
/system/bin/sh                                 file       open,read,execute,execute_no_trans   no
"

while read -r path class perms created; do
    [ -n "$path" ] || continue
    if [ "$created" = yes ]; then
        type=$(created_label "$path" "$class")
        # A file made under /data or /dev must keep its label when restorecon
        # runs; a file without a name has nothing for restorecon to find.
        case $path in */) ;; /data/* | /dev/*)
            fc=$(fc_label "$path")
            [ "$fc" = "$type" ] || fail "$path is created as $type but file_contexts labels it ${fc:-nothing}"
            ;;
        esac
    else
        type=$(label_of "$path")
    fi
    if [ -z "$type" ]; then
        fail "$path has no label"
        continue
    fi
    declared "$type" || fail "$path is labelled $type, which is not declared"
    for perm in ${perms//,/ }; do
        if [ "$created" = refused ]; then
            ! granted "$type" "$class" "$perm" || fail "tovakd may $perm $path ($type:$class), which Android 14 forbids"
        else
            granted "$type" "$class" "$perm" || fail "tovakd may not $perm $path ($type:$class)"
        fi
    done
done <<<"$accesses"

# Root alone is not enough under SELinux, and on Android 14 it gets only
# what init keeps of it: the capabilities the .rc names are exactly those
# the policy grants, and reading past file modes or ptrace's view of other
# processes is neither (groups stand in for them).
rc=$top/android/tovakd.rc
rc_caps=$(awk '$1 == "capabilities" { for (i = 2; i <= NF; i++) print tolower($i) }' "$rc" | sort | tr '\n' ' ')
pol_caps=$(awk '$1 == "tovakd" && $2 == "capability" { print $3 }' "$work/allowed" | sort | tr '\n' ' ')
[ "$rc_caps" = "chown kill " ] || fail "the .rc keeps the capabilities '$rc_caps', not 'chown kill '"
[ "$pol_caps" = "$rc_caps" ] || fail "the policy grants the capabilities '$pol_caps', the .rc keeps '$rc_caps'"
rc_groups=" $(awk '$1 == "group" { $1 = ""; print }' "$rc") "
for group in radio media_rw readproc; do
    [[ $rc_groups == *" $group "* ]] || fail "the .rc does not give the service the group $group"
done

# Every device path compiled into the daemon is one of the rows above.
for path in $(cat "$top/tovakd/common/tovak_paths.h" "$top/protocol/tovak_pkt.h" |
    grep -o '"/[^"]*"' | tr -d '"'); do
    [ "$path" = / ] || path=${path%/}
    grep -q "^$path " <<<"$accesses" || fail "the daemon uses $path, which this test does not check"
done

# The type property_contexts gives NAME: an exact entry, else the longest
# prefix.
prop_type() {
    local name=$1 key ctx kind best="" len=-1
    while read -r key ctx kind _; do
        case $key in "" | \#*) continue ;; esac
        if [ "$kind" = exact ]; then
            [ "$name" = "$key" ] && { cut -d: -f3 <<<"$ctx"; return; }
        elif [[ $name == "$key"* ]] && [ ${#key} -gt $len ]; then
            best=$(cut -d: -f3 <<<"$ctx") len=${#key}
        fi
    done < <(cat "$stub/private/property_contexts" "$pol/system_ext/private/property_contexts")
    echo "$best"
}
# The daemon's properties: read, and set where it saves them. Each must be
# read under the type the platform gives it, or the read fails.
for def in TOVAK_CONFIG_FILE_PROPERTY:set TOVAK_AUTOSAVE_PROPERTY:set TOVAK_BOOT_COMPLETE_PROPERTY:get; do
    name=$(grep -rh "define ${def%%:*} " "$top/tovakd" | grep -o '"[^"]*"' | tr -d '"')
    type=$(prop_type "$name")
    [ -n "$name" ] && [ -n "$type" ] || { fail "${def%%:*} ('$name') has no property type"; continue; }
    granted "$type" file read || fail "tovakd may not read $name ($type)"
    if [ "${def#*:}" = set ]; then
        granted "$type" property_service set || fail "tovakd may not set $name ($type)"
    fi
done

# The context files name declared types of the right kind, and each path's
# type carries the attribute its partition wants of it.
check_context_type() {
    local type=$1 attr=$2 what=$3
    if ! declared "$type"; then
        fail "$what names $type, which is not declared"
    elif [ "$type" != "$attr" ] && ! has_attr "$type" "$attr"; then
        fail "$what names $type, which is no $attr"
    fi
}
while read -r re ctx; do
    case $re in "" | \#*) continue ;; esac
    type=$(cut -d: -f3 <<<"$ctx")
    case $re in
    /dev/*) check_context_type "$type" dev_type "file_contexts ($re)" ;;
    /system*) check_context_type "$type" system_file_type "file_contexts ($re)" ;;
    /vendor/*) check_context_type "$type" vendor_file_type "file_contexts ($re)" ;;
    /data/*) check_context_type "$type" core_data_file_type "file_contexts ($re)" ;;
    *) check_context_type "$type" file_type "file_contexts ($re)" ;;
    esac
done < <(cat "$pol/system_ext/private/file_contexts" "$pol/vendor/file_contexts")
while read -r prop ctx _; do
    case $prop in "" | \#*) continue ;; esac
    check_context_type "$(cut -d: -f3 <<<"$ctx")" system_property_type "property_contexts ($prop)"
done <"$pol/system_ext/private/property_contexts"
# The vendor's property names are its own.
if [ -f "$pol/vendor/property_contexts" ]; then
    grep -Ev '^(#|$|(ro\.|persist\.)?vendor\.|ro\.boot\.|ro\.hardware\.)' "$pol/vendor/property_contexts" |
        while read -r prop _; do fail "sepolicy/vendor/property_contexts holds $prop, not a vendor name"; done
fi
for field in $(grep -v '^#' "$pol/system_ext/private/seapp_contexts"); do
    case $field in
    domain=*) check_context_type "${field#domain=}" appdomain seapp_contexts ;;
    type=*) check_context_type "${field#type=}" file_type seapp_contexts ;;
    esac
done
has_attr tovakd coredomain || fail "tovakd, run from the system image, is no coredomain"

# The .rc starts the binary the policy labels, in the domain init enters
# from it, once user 0's storage is unlocked (dm.cfg is there), with room
# for many descriptors, and makes the directory the socket lives in.
exe=$(awk '$1 == "service" && $2 == "tovakd" { print $3 }' "$rc")
seclabel=$(awk '$1 == "seclabel" { print $2 }' "$rc" | cut -d: -f3)
[ "$(label_of "$exe")" = tovakd_exec ] || fail "the .rc starts $exe, which is not labelled tovakd_exec"
entered=$(sesearch -T -s init -t tovakd_exec -c process "$policy" | awk '{ print $4 }' | tr -d ';')
[ "$seclabel" = tovakd ] && [ "$entered" = tovakd ] ||
    fail "the .rc's seclabel is '$seclabel' and init enters '$entered' from tovakd_exec, not tovakd"
grep -q '^ *disabled *$' "$rc" || fail "the .rc lets its class start tovakd before the user's storage is unlocked"
awk '/^on property:sys\.user\.0\.ce_available=true *$/ { on = 1; next } /^[^ ]/ { on = 0 }
    on && $1 == "start" && $2 == "tovakd" { found = 1 } END { exit !found }' "$rc" ||
    fail "the .rc does not start tovakd when user 0's storage becomes available"
grep -q '^ *rlimit nofile 65536 65536 *$' "$rc" || fail "the .rc does not raise the descriptor limit to 65536"
grep -q '^ *oneshot' "$rc" && fail "the .rc's oneshot would keep init from restarting tovakd"
socket=$(grep -o '"/[^"]*"' "$top/protocol/tovak_pkt.h" | tr -d '"' | head -1)
grep -q "^ *mkdir $(dirname "$socket") " "$rc" || fail "the .rc does not make $(dirname "$socket")"

# Exactly adb shell and the diagnostics app may connect.
clients=$(sesearch -A -t tovakd -c unix_stream_socket -p connectto "$policy" | awk '{ print $2 }' | sort -u |
    while read -r source; do
        awk -v a="$source" '{ for (i = 1; i <= NF; i++) if ($i == a) { print $1; next } }' "$work/types"
    done | grep -vx tovakd | sort -u | tr '\n' ' ')
[ "$clients" = "shell tovak_diag_app " ] || fail "the domains that may connect are '$clients', not 'shell tovak_diag_app'"

# Lines the platform refuses, each for the reason given (a word of
# checkpolicy's message): a device adding one to our policy fails to build.
# The first two are our own rule on who connects.
refused="
neverallow|allow untrusted_app tovakd:unix_stream_socket connectto;
neverallow|allow platform_app tovakd:unix_stream_socket connectto;
neverallow|neverallow { domain -tovakd_client } tovakd:unix_stream_socket connectto;
neverallow|allow tovakd self:capability dac_override;
neverallow|allow tovakd self:capability dac_read_search;
neverallow|allow tovakd self:capability sys_ptrace;
unknown type|allow tovakd log_device:chr_file read;
neverallow|allow tovakd proc:file read;
neverallow|type tovakd_old_config_file, file_type, data_file_type; allow tovakd tovakd_old_config_file:file create;
neverallow|type tovakd_old_prop, property_type;
neverallow|type tovakd_old, domain; type tovakd_old_exec, exec_type, file_type, system_file_type; allow tovakd_old tovakd_old_exec:file entrypoint;
neverallow|type tovakd_old, domain; allow tovakd_old { system_data_file media_rw_data_file }:dir search;
neverallow|type tovakd_old, domain; allow shell tovakd_old:unix_stream_socket connectto;
neverallow|type tovakd_old_socket, dev_type; allow tovakd tovakd_old_socket:sock_file create;
"
if [ -z "$extra" ]; then
    mkdir "$work/refused"
    while IFS='|' read -r reason line; do
        [ -n "$line" ] || continue
        echo "$line" >"$work/refused/device.te"
        if compile "$work/refused/policy" user "$work/refused"; then
            fail "'$line' compiles"
        elif ! grep -q "$reason" "$work/refused/policy.log"; then
            fail "'$line' fails for another reason than '$reason': $(head -3 "$work/refused/policy.log")"
        fi
    done <<<"$refused"
fi

if [ "$failures" -gt 0 ]; then
    echo "$failures failure(s)"
    exit 1
fi
echo "sepolicy: all checks passed"
