#!/usr/bin/env bash
# Whether what was built calls the sanitizers that it was meant for.
#
# usage: check_instrumented.sh SANITIZERS FILE...
#
# SANITIZERS as in -fsanitize=, parted by ",".
set -euo pipefail

fail()
{
    echo "$*" >&2
    exit 1
}

# What the compiler calls in code that it watches.
declare -A calls=(
    [address]='__asan_(report_)?(load|store)'
    [undefined]='__ubsan_handle_'
    [thread]='__tsan_(read|write)'
)

(($# > 1)) || fail "usage: check_instrumented.sh SANITIZERS FILE..."
IFS=, read -r -a sanitizers <<<"$1"
shift
for sanitizer in "${sanitizers[@]}"; do
    [[ -v calls[${sanitizer}] ]] || fail "the sanitizer '${sanitizer}' is not known"
    for file; do
        count=$(nm --undefined-only "${file}" | grep -cE " ${calls[${sanitizer}]}") ||
            fail "${file}: no call of the sanitizer '${sanitizer}'"
        echo "${file##*/}: ${count} names of the sanitizer '${sanitizer}'"
    done
done
