#!/usr/bin/env bash
# Runs the lines with which the README builds and installs the library, in a copy of the tree in which
# nothing but the packages of `./dev setup build` is there, and uses what they installed. Called by
# .ci/run in a bare Debian.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
cd "${root}"
[[ ! -e build ]] || {
    echo "first_steps.sh: there is a build/ already; run this with ./dev bare --run" >&2
    exit 1
}

./dev setup build
lines=$(sed -n 's/^\(cmake -S \. .*\) DIR$/\1/p' README.md)
[[ -n ${lines} ]] || {
    echo "first_steps.sh: the README shows no lines for cmake" >&2
    exit 1
}
echo "${lines} ${PWD}/build/prefix"
eval "${lines} ${PWD}/build/prefix"

cmake -S docs/examples/scale -B build/scale "-DCMAKE_PREFIX_PATH=${PWD}/build/prefix"
cmake --build build/scale
result=$(QUORVAL_PLUGIN_DIR=${PWD}/build/scale build/scale/scale_main)
[[ ${result} == 30 ]] || {
    echo "first_steps.sh: the program wrote '${result}'" >&2
    exit 1
}
