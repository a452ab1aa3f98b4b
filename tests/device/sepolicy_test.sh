#!/usr/bin/env bash
# sepolicy_test.sh TOP: compiles tovakd's SELinux policy (TOP/sepolicy)
# against a stand-in of the platform's base policy and checks it against
# what the daemon does on the phone: the label of every path it opens,
# creates or executes, the access it needs there, the labels the .rc and the
# context files name, and who may connect to its socket.
set -euo pipefail
top=$1
stub=$top/tests/device/sepolicy-stub
pol=$top/sepolicy

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

# compile OUT [EXTRA.te]: the whole policy as the platform's build would
# put it together, then the binary policy; checkpolicy's words in OUT.log.
compile() {
    local out=$1
    shift
    m4 -s "$stub/security_classes" "$stub/initial_sids" "$stub/access_vectors" "$stub/mls" \
        "$stub/global_macros" "$stub/te_macros" "$stub/platform.te" "$pol"/*.te "$@" \
        "$stub/roles_users" "$stub/contexts" >"$out.conf" &&
        checkpolicy -M -c 30 -o "$out" "$out.conf" >"$out.log" 2>&1
}

if ! compile "$work/policy"; then
    cat "$work/policy.log"
    echo "FAIL: the policy does not compile"
    exit 1
fi
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
    done < <(cat "$stub/file_contexts" "$pol/file_contexts")
    echo "$label"
}

# The label PATH has on the phone: a /proc/PID entry has its process's
# domain (init stands for any), /proc and /sdcard are labelled by their
# filesystems, the rest by file_contexts.
label_of() {
    case $1 in
    /proc/[0-9]*) echo init ;;
    /proc | /proc/*) echo proc ;;
    /sdcard | /sdcard/*) echo fuse ;;
    *) fc_label "$1" ;;
    esac
}

# The label a file the daemon creates at PATH gets: a type transition on
# its directory (by name first), else the directory's label.
created_label() {
    local path=$1 class=$2 parent name new
    parent=$(label_of "$(dirname "$path")")
    name=$(basename "$path")
    new=$(awk -v p="$parent" -v c="$class" -v n="$name" \
        '$1 == p && $2 == c && $4 == n { print $3; exit }' "$work/transitions")
    [ -n "$new" ] || new=$(awk -v p="$parent" -v c="$class" \
        '$1 == p && $2 == c && NF == 3 { print $3; exit }' "$work/transitions")
    echo "${new:-$parent}"
}

# What the daemon does on the phone. Created: the daemon makes the file, so
# its label comes from the directory it is made in.
# path                                         class      permissions                          created
accesses="
/system/bin/tovakd                             file       entrypoint,read,execute              no
/dev/ps_socket                                 dir        search,add_name,remove_name,write    no
/dev/ps_socket/tovak                           sock_file  create,unlink,getattr,setattr        yes
/dev/diag                                      chr_file   open,read,write,ioctl                no
/dev/log                                       dir        open,read,search                     no
/dev/log/main                                  chr_file   open,read                            no
/dev/log/radio                                 chr_file   open,read                            no
/dev                                           dir        open,read                            no
/system/etc/dm.cfg                             file       open,read                            no
/system/etc/EventID.txt                        file       open,read                            no
/system/etc/LogItem.txt                        file       open,read                            no
/system/etc/MessageLevel.txt                   file       open,read                            no
/data/media/0/dm.cfg                           file       create,open,read,write,rename        yes
/data/media/0/.dm.cfg.tmp                      file       create,open,write,rename,unlink      yes
/data/local/EventID.txt                        file       create,open,read,write               yes
/data/local/LogItem.txt                        file       create,open,read,write               yes
/data/local/MessageLevel.txt                   file       create,open,read,write               yes
/sdcard/dm.cfg                                 file       create,open,read,write,rename        yes
/sdcard/.dm.cfg.tmp                            file       create,open,write,rename,unlink      yes
/sdcard/syslog                                 dir        create,add_name,search,write         yes
/sdcard/syslog/adbmain_20121221_120000.log     file       create,open,write                    yes
/data/media/0/syslog                           dir        create,add_name,search,write         yes
/data/media/0/syslog/adbmain_20121221_120000.log file     create,open,write                    yes
/proc                                          dir        open,read,search                     no
/proc/1                                        dir        search                               no
/proc/1/exe                                    lnk_file   read                                 no
/proc/1/stat                                   file       open,read                            no
/system/bin/sh                                 file       open,read,execute,execute_no_trans   no
"

while read -r path class perms created; do
    [ -n "$path" ] || continue
    if [ "$created" = yes ]; then
        type=$(created_label "$path" "$class")
        # A file made under /data must keep its label when restorecon runs.
        case $path in /data/* | /dev/*)
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
        granted "$type" "$class" "$perm" || fail "tovakd may not $perm $path ($type:$class)"
    done
done <<<"$accesses"

# Root alone is not enough under SELinux: the socket's group, media_rw's
# and system's files, other users' /proc entries, and kill by name.
for cap in chown dac_override dac_read_search sys_ptrace kill; do
    granted tovakd capability $cap || fail "tovakd lacks the capability $cap"
done

# Every device path compiled into the daemon is one of the rows above.
for path in $(cat "$top/tovakd/daemon/tovak_paths.h" "$top/protocol/tovak_pkt.h" |
    grep -o '"/[^"]*"' | tr -d '"'); do
    [ "$path" = / ] || path=${path%/}
    grep -q "^$path " <<<"$accesses" || fail "the daemon uses $path, which this test does not check"
done

# The context files name declared types of the right kind.
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
    has_attr "$type" dev_type || check_context_type "$type" file_type "file_contexts ($re)"
done <"$pol/file_contexts"
while read -r prop ctx; do
    case $prop in "" | \#*) continue ;; esac
    check_context_type "$(cut -d: -f3 <<<"$ctx")" property_type "property_contexts ($prop)"
done <"$pol/property_contexts"
for field in $(grep -v '^#' "$pol/seapp_contexts"); do
    case $field in
    domain=*) check_context_type "${field#domain=}" appdomain seapp_contexts ;;
    type=*) check_context_type "${field#type=}" file_type seapp_contexts ;;
    esac
done

# The .rc starts the binary the policy labels, in the domain init enters
# from it, and makes the directory the socket lives in.
rc=$top/android/tovakd.rc
exe=$(awk '$1 == "service" && $2 == "tovakd" { print $3 }' "$rc")
seclabel=$(awk '$1 == "seclabel" { print $2 }' "$rc" | cut -d: -f3)
[ "$(label_of "$exe")" = tovakd_exec ] || fail "the .rc starts $exe, which is not labelled tovakd_exec"
entered=$(sesearch -T -s init -t tovakd_exec -c process "$policy" | awk '{ print $4 }' | tr -d ';')
[ "$seclabel" = tovakd ] && [ "$entered" = tovakd ] ||
    fail "the .rc's seclabel is '$seclabel' and init enters '$entered' from tovakd_exec, not tovakd"
socket=$(grep -o '"/[^"]*"' "$top/protocol/tovak_pkt.h" | tr -d '"' | head -1)
grep -q "^ *mkdir $(dirname "$socket") " "$rc" || fail "the .rc does not make $(dirname "$socket")"

# The point of it all: exactly adb shell and the diagnostics app may
# connect, and a rule letting any other domain in does not compile.
clients=$(sesearch -A -t tovakd -c unix_stream_socket -p connectto "$policy" | awk '{ print $2 }' | sort -u |
    while read -r source; do
        awk -v a="$source" '{ for (i = 1; i <= NF; i++) if ($i == a) { print $1; next } }' "$work/types"
    done | sort -u | tr '\n' ' ')
[ "$clients" = "shell tovak_diag_app " ] || fail "the domains that may connect are '$clients', not 'shell tovak_diag_app'"
for intruder in untrusted_app platform_app; do
    echo "allow $intruder tovakd:unix_stream_socket connectto;" >"$work/intruder.te"
    if compile "$work/intruder" "$work/intruder.te"; then
        fail "a policy letting $intruder connect compiles"
    elif ! grep -q neverallow "$work/intruder.log"; then
        fail "letting $intruder connect fails for another reason: $(head -3 "$work/intruder.log")"
    fi
done

if [ "$failures" -gt 0 ]; then
    echo "$failures failure(s)"
    exit 1
fi
echo "sepolicy: all checks passed"
