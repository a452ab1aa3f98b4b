#!/usr/bin/env bash
# cross-test.sh armhf|arm64: builds tovakd and the unit tests for ARM into
# build-ARCH and runs the unit tests under qemu-user; then runs the
# end-to-end tests of the native build (build/) against that ARM tovakd,
# started under qemu inside the simulated device's sandbox, while the
# simulator, the client and the tests stay native.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)

case ${1:-} in
armhf) triple=arm-linux-gnueabihf qemu=qemu-arm ;;
arm64) triple=aarch64-linux-gnu qemu=qemu-aarch64 ;;
*)
    echo "usage: cross-test.sh armhf|arm64" >&2
    exit 2
    ;;
esac
arch=$1
build=$top/build-$arch
deps=$build/_deps
jobs=$(($(nproc) * 2))

fail() {
    echo "cross-test: $*" >&2
    exit 1
}

installed() {
    dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q "install ok installed"
}

# What a missing package can't give, this says in one line.
need_packages() {
    local missing=() p
    for p in "$@"; do
        installed "$p" || missing+=("$p")
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    local sudo=""
    [ "$(id -u)" -eq 0 ] || sudo="sudo"
    echo "cross-test: installing ${missing[*]}" >&2
    # Other builds on the machine may hold the package lock for a while.
    { $sudo apt-get -o DPkg::Lock::Timeout=600 update -qq &&
        DEBIAN_FRONTEND=noninteractive $sudo apt-get -o DPkg::Lock::Timeout=600 install -y -qq "${missing[@]}"; } \
        >"$top/.cross-apt-$arch.log" 2>&1 || true
    for p in "${missing[@]}"; do
        installed "$p" || fail "cannot install $p (see .cross-apt-$arch.log)"
    done
    rm -f "$top/.cross-apt-$arch.log"
}

need_packages "g++-$triple" qemu-user googletest nlohmann-json3-dev ninja-build cmake
command -v "$triple-g++" >/dev/null || fail "no cross compiler $triple-g++ on PATH"
command -v "$qemu" >/dev/null || fail "no $qemu on PATH (package qemu-user)"
[ -f /usr/src/googletest/CMakeLists.txt ] || fail "no GoogleTest sources in /usr/src/googletest (package googletest)"

launcher=()
command -v ccache >/dev/null && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
toolchain=(-DCMAKE_TOOLCHAIN_FILE="$top/cmake/$arch.cmake" -DTOVAK_CROSS_DEPS="$deps")

# GoogleTest for the target from Debian's sources, and nlohmann-json's
# headers (architecture-free) under a prefix of their own: the target's
# compile must never see the host's /usr/include.
if [ ! -f "$deps/lib/cmake/GTest/GTestConfig.cmake" ]; then
    echo "== GoogleTest for $arch"
    cmake -S /usr/src/googletest -B "$build/_gtest" -G Ninja "${toolchain[@]}" "${launcher[@]}" \
        -DCMAKE_BUILD_TYPE=Release -DBUILD_GMOCK=OFF -DCMAKE_INSTALL_PREFIX="$deps" >/dev/null
    cmake --build "$build/_gtest" >/dev/null
    cmake --install "$build/_gtest" >/dev/null
fi
mkdir -p "$deps/include" "$deps/share/cmake/nlohmann_json"
ln -sfn /usr/include/nlohmann "$deps/include/nlohmann"
cp /usr/share/cmake/nlohmann_json/*.cmake "$deps/share/cmake/nlohmann_json/"

echo "== $arch build"
cmake -S "$top" -B "$build" -G Ninja -DTOVAK_WERROR=ON "${toolchain[@]}" "${launcher[@]}" >/dev/null
# The test programs, as GoogleTest's discovery steps name them: the unit
# ones are those none of whose tests is labelled e2e. The end-to-end ones
# run natively below, so they are not built here.
discovery=$(grep -o 'TEST_TARGET=[^ ]* [^&]*TEST_PROPERTIES=[^ ]*' "$build/build.ninja" |
    sed 's/^TEST_TARGET=\([^ ]*\) .*TEST_PROPERTIES=\(.*\)$/\1 \2/')
e2e_targets=$(awk '/LABELS;e2e/ { print $1 }' <<<"$discovery" | sort -u)
unit_targets=$(awk '{ print $1 }' <<<"$discovery" | sort -u | grep -vxF "$e2e_targets" || true)
[ -n "$unit_targets" ] || fail "found no unit test programs in $build/build.ninja"
# shellcheck disable=SC2086
cmake --build "$build" --target tovakd $unit_targets

# The simulator, launcher and end-to-end tests stay native.
"$top/scripts/build.sh" "$top/build" >/dev/null

echo "== $arch unit tests under $qemu"
# An unbuilt program leaves one placeholder test, without labels.
TOVAK_SIM_BIN_DIR="$top/build/bin" ctest --test-dir "$build" -j "$jobs" --output-on-failure --timeout 600 -LE 'e2e|device' \
    -E "^($(tr '\n' '|' <<<"$e2e_targets" | sed 's/|$//'))_NOT_BUILT\$"

echo "== end-to-end tests, native build against the $arch tovakd under $qemu"
TOVAK_SIM_DAEMON="$build/bin/tovakd" \
TOVAK_SIM_DAEMON_WRAPPER="$(command -v "$qemu") -L /usr/$triple" \
    ctest --test-dir "$top/build" -j "$jobs" --output-on-failure --timeout 600 -L e2e
