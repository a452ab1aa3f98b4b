#!/usr/bin/env bash
# test.sh [STAGE...]: builds and runs the tests in stages, in this order:
#   plain  the format check, then every test, plain build
#   asan   every test under AddressSanitizer and UndefinedBehaviorSanitizer
#   tsan   the concurrent tests (ctest label "concurrent") and the hostile
#          clients' tests under ThreadSanitizer
#   fuzz   each libFuzzer target for TOVAK_FUZZ_SECONDS (default 45) with
#          ASan and UBSan, inside a sandbox whose device paths are scratch
#   cross  the armhf daemon under qemu (scripts/cross-test.sh)
# With no STAGE it runs them all. Each stage builds only what it runs.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
"$top/scripts/deps.sh"
jobs=$(($(nproc) * 2))
stages=("$@")
[ ${#stages[@]} -gt 0 ] || stages=(plain asan tsan fuzz cross)

launcher=()
command -v ccache >/dev/null && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
# configure DIR [CMAKE OPTIONS...]
configure() {
    local dir=$1
    shift
    cmake -S "$top" -B "$dir" -G Ninja -DTOVAK_WERROR=ON "${launcher[@]}" "$@" >/dev/null
}
stage_started=0
begin() {
    echo "== $1"
    stage_started=$SECONDS
}
end() {
    echo "== $1 took $((SECONDS - stage_started)) s"
}

plain() {
    begin "plain build"
    "$top/scripts/format.sh" --check >/dev/null || {
        "$top/scripts/format.sh" --check | tail -n 20
        echo "test.sh: C++ files not formatted; scripts/format.sh formats them"
        return 1
    }
    "$top/scripts/build.sh" "$top/build"
    ctest --test-dir "$top/build" -j "$jobs" --output-on-failure --timeout 600
    end plain
}

asan() {
    begin "AddressSanitizer + UndefinedBehaviorSanitizer build"
    "$top/scripts/build.sh" "$top/build-asan" -DTOVAK_SANITIZE=ON
    # Sanitized code runs several times slower: the tests' deadlines stretch.
    TOVAK_TEST_TIME_SCALE=${TOVAK_TEST_TIME_SCALE:-2} \
    ASAN_OPTIONS=${ASAN_OPTIONS:-abort_on_error=0:detect_leaks=1} \
    UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1} \
        ctest --test-dir "$top/build-asan" -j "$jobs" --output-on-failure --timeout 900
    end asan
}

tsan() {
    begin "ThreadSanitizer build, concurrent and hostile tests"
    configure "$top/build-tsan" -DTOVAK_TSAN=ON
    cmake --build "$top/build-tsan" --target tovak_unit_tests tovak_e2e_tests tovak_fault_campaign_tests tovakd tovak-sim \
        tovak-devsim
    # The daemon runs as its own process; the tests fail on any report in
    # its output, so a race never passes silently.
    # The hostile clients' tests too: most hold one connection, but the
    # daemon meets each with its own threads.
    local select
    for select in "-L concurrent" "-R ^Hostile -LE concurrent"; do
        # shellcheck disable=SC2086
        TOVAK_TEST_TIME_SCALE=${TOVAK_TEST_TIME_SCALE:-4} \
        TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1} \
            ctest --test-dir "$top/build-tsan" $select -j "$jobs" --output-on-failure --timeout 900
    done
    end tsan
}

fuzz() {
    begin "fuzzing, ${TOVAK_FUZZ_SECONDS:-45} s per target"
    local dir=$top/build-fuzz
    configure "$dir" -DCMAKE_C_COMPILER=clang-14 -DCMAKE_CXX_COMPILER=clang++-14 -DTOVAK_FUZZ=ON
    cmake --build "$dir" --target tovak_fuzz_session tovak_fuzz_config tovak_fuzz_hdlc tovak_fuzz_logread tovak-devsim
    local failed=0
    for target in session config hdlc logread; do
        # The checked-in seeds stay as they are; what the run finds goes to
        # a working corpus, and a failing input to the artifacts directory.
        local work=$dir/fuzz-work/$target artifacts=$dir/fuzz-artifacts/$target
        mkdir -p "$work" "$artifacts"
        # The factory files seed the configuration parser from where they live.
        local seeds=("$top/fuzz/corpus/$target")
        [ "$target" = config ] && seeds+=("$top/etc")
        echo "-- $target"
        if ! "$top/sim/harness/scratch-root.sh" --rw "$work" --rw "$artifacts" -- \
            "$dir/bin/tovak_fuzz_$target" "$work" "${seeds[@]}" \
            -max_total_time="${TOVAK_FUZZ_SECONDS:-45}" -timeout=30 -rss_limit_mb=4096 -max_len=16384 \
            -artifact_prefix="$artifacts/" -print_final_stats=1 -close_fd_mask=1 >"$dir/fuzz-$target.log" 2>&1; then
            tail -n 60 "$dir/fuzz-$target.log"
            echo "fuzz: $target failed; the reproducing input is in $artifacts/ (log: $dir/fuzz-$target.log)"
            failed=1
        fi
        grep -E "^stat::number_of_executed_units|^#[0-9]+ *DONE" "$dir/fuzz-$target.log" || true
    done
    end fuzz
    return $failed
}

cross() {
    begin "cross build (armhf) under qemu-user"
    "$top/scripts/cross-test.sh" armhf
    end cross
}

for stage in "${stages[@]}"; do
    case $stage in
    plain | asan | tsan | fuzz | cross) "$stage" ;;
    *) echo "test.sh: unknown stage $stage (plain asan tsan fuzz cross)" >&2; exit 2 ;;
    esac
done
