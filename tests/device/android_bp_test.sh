#!/usr/bin/env bash
# android_bp_test.sh TOP: the Android build files are as bpfmt leaves them,
# build every source of the daemon, the protocol and the client, and link
# the same platform libraries as the CMake build for a phone.
set -euo pipefail
top=$1
bp=$top/Android.bp
if ! command -v bpfmt >/dev/null; then
    echo "SKIP: bpfmt missing (Debian package blueprint-tools)"
    exit 77
fi
failures=0
fail() {
    echo "FAIL: $*"
    failures=$((failures + 1))
}

while IFS= read -r -d '' file; do
    if ! out=$(bpfmt -d "$file" 2>&1) || [ -n "$out" ]; then
        fail "${file#"$top"/} is not as bpfmt leaves it:"
        echo "$out"
    fi
done < <(find "$top" \( -name .git -o -name 'build*' \) -prune -o -name '*.bp' -print0)

listed=$(grep -o '"[^"]*\.cpp"' "$bp" | tr -d '"' | sort)
for src in $listed; do
    [ -f "$top/$src" ] || fail "Android.bp builds $src, which does not exist"
done
for src in $(cd "$top" && find tovakd protocol client -name '*.cpp' | sort); do
    grep -qx "$src" <<<"$listed" || fail "Android.bp does not build $src"
done

# The device link in CMake names the libraries without their lib prefix.
cmake_libs=$(sed -n '/target_link_libraries(tovak_platform INTERFACE$/,/)/p' "$top/CMakeLists.txt" |
    sed '1d; s/)//' | tr ' ' '\n' | grep . | sed 's/^/lib/' | sort | tr '\n' ' ')
bp_libs=$(sed -n '/^    shared_libs: \[/,/\]/p' "$bp" | grep -o '"[^"]*"' | tr -d '"' | sort | tr '\n' ' ')
[ -n "$cmake_libs" ] && [ "$cmake_libs" = "$bp_libs" ] ||
    fail "tovakd's shared_libs '$bp_libs' are not the CMake device link '$cmake_libs'"

if [ "$failures" -gt 0 ]; then
    echo "$failures failure(s)"
    exit 1
fi
echo "Android.bp: all checks passed"
