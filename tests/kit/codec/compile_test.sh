#!/usr/bin/env bash
# Compiles a plug-in that registers a codec without a warning: with each compiler, in each standard.
#
# usage: compile_test.sh INCLUDE_DIRECTORY PLUGIN_SOURCE COMPILER...
set -euo pipefail

include=$1
plugin=$2
shift 2

directory=$(mktemp -d)
trap 'rm -rf "$directory"' EXIT

warnings=(-Wall -Wextra -Wpedantic -Wconversion -Wsign-conversion -Wshadow -Werror)
for compiler in "$@"; do
    for standard in c++17 c++20; do
        "$compiler" "-std=$standard" -fsyntax-only -I "$include" "${warnings[@]}" "$plugin"
    done

    # A plug-in with a unique symbol would stay mapped for ever. Without -fno-gnu-unique, since a
    # user may build without it.
    "$compiler" -std=c++17 -O1 -fPIC -I "$include" -c "$plugin" -o "$directory/plugin.o"
    if nm "$directory/plugin.o" | grep ' u '; then
        echo "$compiler makes unique symbols" >&2
        exit 1
    fi
done
