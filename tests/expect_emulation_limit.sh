#!/usr/bin/env bash
# Usage: expect_emulation_limit.sh SUITE.TEST PROGRAM...
#
# Succeeds when the test exists and fails under the emulator, as tests/emulation_limits.txt says.
set -euo pipefail
ulimit -c 0

test=$1
shift

if ! "$@" --gtest_filter="$test" --gtest_list_tests | grep -q '^  '; then
    echo "There is no test $test any more: remove it from tests/emulation_limits.txt." >&2
    exit 1
fi
if "$@" --gtest_filter="$test"; then
    echo "$test passes under the emulator: remove it from tests/emulation_limits.txt." >&2
    exit 1
fi
