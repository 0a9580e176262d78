#!/usr/bin/env bash
# Compiles literals that mean what they look like, and expects the refusal of those that do not:
# with each compiler, in each standard, and in each place where a literal can stand.
#
# usage: literal_compile_test.sh INCLUDE_DIRECTORY COMPILER...
set -euo pipefail

include=$1
shift

# An error is found by its text.
export LC_ALL=C

accepted=(
    '{"x", 1}'
    '{"x", 0}'
    '{"x", 1.0}'
    '{"x", 1.0f}'
    '{"x", true}'
    '{"x", "text"}'
    '{"x", ""}'
    '{"x", std::string("text")}'
    '{"x", text}'
    '{"x", text.c_str()}'
    '{"x", buffer}'
    '{text, text}'
    '{std::string("x"), 1}'
    '{buffer, 1}'
    '{"x", {1}}'
    '{"x", {0}}'
    '{"x", {1, 2}}'
    '{"x", {0, 0}}'
    '{"x", {1, 2, 3}}'
    '{"x", {n, n}}'
    '{"x", {0.5}}'
    '{"x", {0.5, 0.5}}'
    '{"x", {true}}'
    '{"x", {true, false}}'
    '{"x", {"a"}}'
    '{"x", {"a", "b"}}'
    '{"x", {"a", "longer"}}'
    '{"x", {"a", "b", "c"}}'
    '{"x", {text, text}}'
    '{"x", {text, "b"}}'
    '{"x", {"a", text}}'
    '{"x", {buffer, buffer}}'
    '{"x", std::vector<int>{}}'
    '{"x", std::vector<double>{0.5}}'
    '{"x", std::vector<bool>{true}}'
    '{"x", std::vector<std::string>{"a"}}'
    '{"x", std::vector<const char*>{"a"}}'
    '{"x", ints}'
    '{"x", std::initializer_list<int>{}}'
    '{"x", std::initializer_list<BlockConfiguration::KeyValue>{}}'
    '{"x", std::initializer_list<std::initializer_list<BlockConfiguration::KeyValue>>{}}'
    '{"x", {{"a", 1}}}'
    '{"x", {{"a", "b"}}}'
    '{"x", {{"a", "b"}, {"c", "d"}}}'
    '{"x", {{"a", "b"}, {"c", "d"}, {"e", "f"}}}'
    '{"x", {{"a", {1, 2}}, {"b", {"c", "d"}}}}'
    '{"x", {{text, text}, {text, text}}}'
    '{"x", {{"a", {{"b", {{"c", "d"}}}}}}}'
    '{"x", {{{"a", 1}}}}'
    '{"x", {{{"a", "b"}}}}'
    '{"x", {{{"a", "b"}}, {{"a", "c"}}}}'
    '{"x", {{{"a", "b"}, {"c", "d"}}, {{"a", "e"}}}}'
    '{"x", {{{"a", 1}}, {}, {{"a", 2}}}}'
    '{"x", {{}, {{"a", "b"}}}}'
    '{"x", {{{"a", {{{"b", "c"}}, {{"b", "d"}}}}}}}'
)

refused=(
    # A pointer that is no string is no bool either.
    '{"x", (void*)0}'
    '{"x", &n}'
    '{"x", {&n}}'
    '{"x", {&n, &n}}'
    '{"x", function}'
    '{"x", {function}}'
    '{"x", &Record::member}'
    '{"x", L"w"}'
    # Numbers are no strings.
    '{0, 1}'
    '{1, 1}'
    '{true, 1}'
    # Lists of numbers do not nest.
    '{"m", {{1}}}'
    '{"m", {{1, 2}}}'
    '{"m", {{1, 2}, {3, 4}}}'
    '{"m", {{0, 1}, {0, 2}}}'
    '{"m", {{1}, {2}}}'
    '{"m", {{1.5, 2.5}}}'
    '{"m", {{1.5, 2.5}, {3.5}}}'
    '{"m", {{true, false}}}'
    '{"m", {{true}, {false}}}'
    '{"m", {{{1, 2}}, {{3, 4}}}}'
    '{"x", {{1}}}'
    # Three strings are no member.
    '{"m", {{"a", "b", "c"}}}'
    # A member that is none, next to one of two strings, makes no string between two pointers.
    '{"sub", {{"y", "z"}, {"x"}}}'
    '{"sub", {{"y", "z"}, {"x", 1, 2}}}'
    '{"sub", {{&n, 1}}}'
    # What has no type.
    '{"m", {}}'
    # Numbers of other types, and mixtures.
    '{"x", 1u}'
    '{"x", 1L}'
    '{"x", {1, 2.5}}'
    '{"x", {"a", 1}}'
    '{"x", {1, "a"}}'
)

# The places of a literal: as the only member, beside others, and below others.
places=(
    'BlockConfiguration config{@};'
    'take({@});'
    'BlockConfiguration config = {{"y", 1}, @};'
    'BlockConfiguration config = {{"sub", {@}}};'
    'BlockConfiguration config = {{"list", {{{"y", "z"}}, {@}}}};'
)

directory=$(mktemp -d)
trap 'rm -rf "$directory"' EXIT

# write_source FILE LITERAL...: a function on a line of its own for each literal in each place.
write_source() {
    local file=$1 literal place number=0
    shift
    {
        echo '#include <quorval/config.h>'
        echo 'using Quorval::BlockConfiguration;'
        echo 'struct Record { int member; };'
        echo 'int n = 0;'
        echo 'void function();'
        echo 'std::string text;'
        echo 'char buffer[] = "text";'
        echo 'std::vector<int> ints;'
        echo 'void take(const BlockConfiguration&);'
        for literal in "$@"; do
            for place in "${places[@]}"; do
                number=$((number + 1))
                echo "void f$number() { ${place/@/"$literal"} }"
            done
        done
    } > "$file"
}

write_source "$directory/accepted.cpp" "${accepted[@]}"
write_source "$directory/refused.cpp" "${refused[@]}"
grep -n '^void f[0-9]' "$directory/refused.cpp" | cut -d: -f1 > "$directory/expected"

failures=0
for compiler in "$@"; do
    for standard in c++17 c++20; do
        compile=("$compiler" "-std=$standard" -fsyntax-only -Wall -Wextra -Wpedantic -I "$include")
        if ! "${compile[@]}" -Werror "$directory/accepted.cpp"; then
            echo "$compiler -std=$standard refuses a literal that it should accept" >&2
            failures=$((failures + 1))
        fi
        unlimited=-fmax-errors=0
        if "$compiler" --version | grep -q clang; then
            unlimited=-ferror-limit=0
        fi
        "${compile[@]}" "$unlimited" "$directory/refused.cpp" > "$directory/output" 2>&1 || true
        # The lines with an error; one literal can give several.
        sed -n 's/^.*refused\.cpp:\([0-9]*\):[0-9]*: error: .*/\1/p' "$directory/output" |
            sort -n -u > "$directory/found"
        while read -r line; do
            echo "$compiler -std=$standard accepts: $(sed -n "${line}p" "$directory/refused.cpp")" >&2
            failures=$((failures + 1))
        done < <(grep -vxF -f "$directory/found" "$directory/expected" || true)
        if grep -vxF -f "$directory/expected" "$directory/found"; then
            echo "$compiler -std=$standard finds errors where there is no literal" >&2
            failures=$((failures + 1))
        fi
    done
done

echo "$((${#accepted[@]} * ${#places[@]})) accepted, $(wc -l < "$directory/expected") refused," \
    "$failures failures"
exit $((failures > 0))
