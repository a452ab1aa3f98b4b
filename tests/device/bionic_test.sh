#!/usr/bin/env bash
# bionic_test.sh TOP: the daemon's code (tovakd/ and the protocol/ it
# links) calls nothing that Android's C library lacks: glibc-only calls and
# GNU-only headers would build here and fail in the phone's tree.
set -euo pipefail
top=$1
# Calls and headers bionic does not offer.
glibc_only='\<(pthread_cancel|pthread_setcancelstate|pthread_setcanceltype|pthread_testcancel|error|error_at_line|backtrace|backtrace_symbols|getcontext|makecontext|swapcontext|shm_open|shm_unlink|sem_open|mallinfo2|strfry|memfrob|fcloseall|getdate)[[:space:]]*\(|#[[:space:]]*include[[:space:]]*<(error\.h|execinfo\.h|argp\.h|obstack\.h|mcheck\.h|printf\.h|gnu/[^>]*)>'
# Comments and string literals aside.
hits=$(cd "$top" && find tovakd protocol \( -name '*.cpp' -o -name '*.h' \) -print0 | xargs -0 grep -nE "$glibc_only" |
    grep -vE ':[0-9]+:[[:space:]]*//' | grep -vE '"[^"]*\<(error|backtrace)\>[^"]*"' || true)
if [ -n "$hits" ]; then
    echo "FAIL: calls or headers that Android's C library lacks:"
    echo "$hits"
    exit 1
fi
echo "bionic: nothing glibc-only in tovakd/ or protocol/"
