#!/usr/bin/env bash
# Compiles a plug-in that declares settings without a warning, and expects the refusal of mistakes
# that a compiler can see: with each compiler, in each standard, with and without run-time types.
#
# usage: compile_test.sh INCLUDE_DIRECTORY PLUGIN_SOURCE COMPILER...
set -euo pipefail

include=$1
plugin=$2
shift 2

# An error is found by its text.
export LC_ALL=C

refused=(
    'add("k", &Values::letter, "");|a setting is an int, a bool, a double, a float, a std::string'
    'add("k", &Values::names, "");|a setting is an int, a bool, a double, a float, a std::string'
    'add("k", &Others::count, "");|the member is one of another structure'
    'add("k", &Values::count, "").choices({1, 2});|error: '
    'add("k", &Values::count, "").range("a", "b");|error: '
    '; Quorval::settings_detail::create<Values>("", {}, *tools);|a block type is a class derived'
    '; Quorval::settings_detail::create<Named>("", {}, *tools);|and has the public constructor'
)

directory=$(mktemp -d)
trap 'rm -rf "$directory"' EXIT
failures=0

fail()
{
    echo "$1" >&2
    failures=$((failures + 1))
}

# write_source DECLARATION
write_source()
{
    cat > "$directory/refused.cpp" <<END
#include <map>
#include <quorval/settings.h>
struct Values { char letter; std::map<int, int> names; int count; };
struct Others { int count; };
struct Named : Quorval::Block { Named(std::string name) : Block(name) {} };
void declare(const Quorval::InitTools* tools) { Quorval::Settings<Values>("").$1 }
END
}

warnings=(-Wall -Wextra -Wpedantic -Wconversion -Wsign-conversion -Wshadow -Werror)
for compiler in "$@"; do
    for standard in c++17 c++20; do
        compile=("$compiler" "-std=$standard" -fsyntax-only -I "$include")
        "${compile[@]}" "${warnings[@]}" "$plugin" ||
            fail "$compiler -std=$standard warns"
        "${compile[@]}" "${warnings[@]}" -fno-rtti "$plugin" ||
            fail "$compiler -std=$standard warns without run-time types"
        for entry in "${refused[@]}"; do
            write_source "${entry%%|*}"
            if "${compile[@]}" "$directory/refused.cpp" > "$directory/output" 2>&1; then
                fail "$compiler -std=$standard accepts ${entry%%|*}"
            elif ! grep -qF "${entry#*|}" "$directory/output"; then
                fail "$compiler -std=$standard does not say '${entry#*|}' for ${entry%%|*}"
                cat "$directory/output" >&2
            fi
        done
    done

    # A plug-in with a unique symbol would stay mapped for ever. Without -fno-gnu-unique, since a
    # user may build without it.
    "$compiler" -std=c++17 -O1 -fPIC -I "$include" -c "$plugin" -o "$directory/plugin.o"
    if nm "$directory/plugin.o" | grep ' u '; then
        fail "$compiler makes unique symbols"
    fi
done

echo "$failures failures"
exit $((failures > 0))
