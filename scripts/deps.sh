#!/usr/bin/env bash
# Installs, from Debian's packages, whatever building, running and testing
# need and the machine lacks.
set -euo pipefail

packages=(cmake ninja-build g++ libgtest-dev googletest bubblewrap nlohmann-json3-dev procps clang-14 libclang-rt-14-dev tshark
    blueprint-tools checkpolicy setools m4 android-liblog-dev android-libcutils-dev clang-format-14 groff)
missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
echo "deps: installing ${missing[*]}"
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}" >/dev/null
