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
# The unit test programs; a new one missing here shows up as a NOT_BUILT
# failure below, never as a quiet skip.
unit_targets=(tovak_unit_tests tovak_devsim_unit_tests tovak_client_tests tovak_handler_unit_tests)

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
cmake --build "$build" --target tovakd "${unit_targets[@]}"

echo "== $arch unit tests under $qemu"
# The end-to-end programs are not built here; their placeholders carry no label.
ctest --test-dir "$build" -j "$jobs" --output-on-failure --timeout 600 -LE 'e2e|device' -E '_e2e_tests_NOT_BUILT$'

echo "== end-to-end tests, native build against the $arch tovakd under $qemu"
"$top/scripts/build.sh" "$top/build" >/dev/null
TOVAK_SIM_DAEMON="$build/bin/tovakd" \
TOVAK_SIM_DAEMON_WRAPPER="$(command -v "$qemu") -L /usr/$triple" \
    ctest --test-dir "$top/build" -j "$jobs" --output-on-failure --timeout 600 -L e2e
