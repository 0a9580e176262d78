#!/usr/bin/env bash
# Whether the unit is one that systemd accepts, and is shut off well.
#   service_unit_test.sh UNIT PROGRAM
set -euo pipefail

directory=$(mktemp -d)
trap 'rm -rf "${directory}"' EXIT

# As it will be installed, but with the program where it is now.
unit=${directory}/quorval@loudness.service
sed "s|^ExecStart=[^ ]*|ExecStart=$2|" "$1" >"${unit}"

# The program lies in a folder of the build, and its manual pages are not installed.
found=$(systemd-analyze verify --man=no "${unit}" 2>&1) || {
    echo "${found}"
    exit 1
}
[[ -z ${found} ]] || {
    echo "systemd-analyze says: ${found}"
    exit 1
}

level=$(systemd-analyze security --offline=true --no-pager "${unit}" |
    sed -n 's/.*Overall exposure level for .*: \([0-9.]*\) .*/\1/p')
echo "exposure level ${level}"
awk -v level="${level}" 'BEGIN { exit !(level != "" && level <= 2.0) }'
