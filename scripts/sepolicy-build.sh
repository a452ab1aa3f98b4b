# shellcheck shell=bash
# Sourced by scripts/check-sepolicy.sh and tests/device/sepolicy_test.sh:
# how a device build turns policy folders into one policy.conf.

# sepolicy_m4defs VARIANT ARCH [FLAG...]: the definitions the platform build
# passes to m4 for a full-Treble device, one argument a line; release flags
# named after ARCH are off.
sepolicy_m4defs() {
    local variant=$1 arch=$2 flag
    shift 2
    printf '%s\n' -D mls_num_sens=1 -D mls_num_cats=1024 -D "target_arch=$arch" \
        -D target_with_asan=false -D target_with_dexpreopt=true -D target_with_native_coverage=false \
        -D "target_build_variant=$variant" -D target_full_treble=true -D target_compatible_property=true \
        -D target_treble_sysprop_neverallow=true -D target_enforce_sysprop_owner=true \
        -D target_exclude_build_test=false -D target_requires_insecure_execmem_for_swiftshader=false \
        -D target_enforce_debugfs_restriction=true -D target_recovery=false
    for flag in "$@"; do printf '%s\n' -D "target_flag_$flag=false"; done
}

# sepolicy_files EXTRA_TE_MACROS DIR...: the files of the folders DIR in the
# build's order, one a line: by kind first, then folder by folder in the
# order given; each folder's attributes before its .te files, sorted by name.
# EXTRA_TE_MACROS (or "") goes first among the te_macros.
sepolicy_files() {
    local extra=$1 kind d
    shift
    for kind in security_classes initial_sids access_vectors global_macros neverallow_macros mls_macros \
        mls_decl mls policy_capabilities te_macros ioctl_defines ioctl_macros te roles_decl roles users \
        initial_sid_contexts fs_use genfs_contexts port_contexts; do
        if [ "$kind" = te_macros ] && [ -n "$extra" ]; then echo "$extra"; fi
        for d in "$@"; do
            if [ "$kind" = te ]; then
                if [ -f "$d/attributes" ]; then echo "$d/attributes"; fi
                (LC_ALL=C ls "$d"/*.te 2>/dev/null) || true
            elif [ -f "$d/$kind" ]; then
                echo "$d/$kind"
            fi
        done
    done
}
