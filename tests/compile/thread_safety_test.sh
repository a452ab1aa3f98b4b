#!/usr/bin/env bash
# thread_safety_test.sh CLANG SOURCE_DIR: the lock annotations bite. The
# checked file compiles clean, and each broken case fails with clang's
# thread-safety diagnostic, not with any other error.
set -u
clang=$1
top=$2
src=$top/tests/compile/thread_safety_check.cpp
flags=(-std=c++20 -fsyntax-only -Wthread-safety -Werror -I"$top/tovakd" -I"$top")
status=0
if ! out=$("$clang" "${flags[@]}" -DTOVAK_CASE=0 "$src" 2>&1); then
    echo "clean case does not compile:"; echo "$out"; status=1
fi
for n in 1 2 3 4; do
    out=$("$clang" "${flags[@]}" -DTOVAK_CASE=$n "$src" 2>&1) && { echo "case $n compiled"; status=1; continue; }
    grep -q -- "-Wthread-safety" <<<"$out" || { echo "case $n failed otherwise:"; echo "$out"; status=1; }
    [ "$(grep -c "error:" <<<"$out")" = 1 ] || { echo "case $n: not one error:"; echo "$out"; status=1; }
done
exit $status
