#!/usr/bin/env bash
# Usage: check_library_file.sh LIBRARY NM READELF OBJDUMP optimised|plain SONAME SYMBOLS [NEEDED...]
#
# What the library file exports, what it needs and how it is protected. Fortified functions are
# expected in an optimised build alone. It exports at least SYMBOLS symbols, and may need the
# libraries NEEDED beside those of the C++ language.
set -euo pipefail

library=$1
nm=$2
readelf=$3
objdump=$4
build=$5
soname=$6
least=$7
shift 7
failures=0

fail() {
    echo "FAILED: $1" >&2
    shift
    printf '    %s\n' "$@" >&2
    failures=$((failures + 1))
}

mapfile -t exported < <("$nm" -D --defined-only "$library" | awk '{ print $3 }' | sort)
mapfile -t imported < <("$nm" -D --undefined-only "$library" | awk '{ print $2 }' | sort)
mapfile -t needed < <("$readelf" -dW "$library" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | sort)
dynamic=$("$readelf" -dW "$library")
segments=$("$readelf" -lW "$library")
machine=$("$readelf" -h "$library" | sed -n 's/ *Machine: *//p')

# Ours, or an instantiation of a template of the standard library.
foreign=()
for symbol in "${exported[@]}"; do
    case $(c++filt "$symbol") in
    logger) ;;
    Quorval::*) ;;
    'vtable for Quorval::'* | 'typeinfo for Quorval::'* | 'typeinfo name for Quorval::'*) ;;
    'VTT for Quorval::'* | 'construction vtable for '*'-in-Quorval::'*) ;;
    'virtual thunk to Quorval::'* | 'non-virtual thunk to Quorval::'*) ;;
    'operator'*'(Quorval::'* | *' Quorval::operator'*) ;;
    *) [[ $symbol =~ ^_Z(N|NK|Z|ZN|ZNK|TI|TS|TV|GVZ|GVZN|GVZNK)?(St|S[absiod]|9__gnu_cxx) ]] ||
        foreign+=("$symbol") ;;
    esac
done
[[ ${#exported[@]} -ge ${least} ]] || fail "too few symbols to be true: ${#exported[@]}"
[[ ${#foreign[@]} -eq 0 ]] || fail "exports what is not its own:" "${foreign[@]}"

mapfile -t hidden < <(printf '%s\n' "${exported[@]}" | grep -iE '6cereal|4toml|N7Quorval7runtime' || true)
[[ ${#hidden[@]} -eq 0 ]] || fail "exports what no public header declares:" "${hidden[@]}"

mapfile -t records < <(printf '%s\n' "${exported[@]}" | c++filt | grep -E 'Impl(::|$)' || true)
[[ ${#records[@]} -eq 0 ]] || fail "exports a private record:" "${records[@]}"

for name in "${needed[@]}"; do
    case $name in
    libc.so.6 | libstdc++.so.6 | libgcc_s.so.1 | libm.so.6) ;;
    ld-linux-aarch64.so.1 | ld-linux-x86-64.so.2) ;;
    *) [[ " $* " == *" ${name} "* ]] || fail "needs ${name}" ;;
    esac
done
[[ " ${needed[*]} " == *" libc.so.6 "* ]] || fail "does not need libc.so.6: ${needed[*]}"

grep -qF "Library soname: [${soname}]" <<<"$dynamic" || fail "has another SONAME"
# In the tree a library of ours is found where it was built.
if [[ " ${needed[*]} " != *" libquorval-"* ]] && grep -qE 'RPATH|RUNPATH' <<<"$dynamic"; then
    fail "has a run path"
fi
grep -q 'BIND_NOW' <<<"$dynamic" || fail "is not bound at once"
grep -q 'GNU_RELRO' <<<"$segments" || fail "has no RELRO segment"
grep -q 'GNU_STACK .* RW ' <<<"$segments" || fail "has an executable stack"
grep -q 'TEXTREL' <<<"$dynamic" && fail "has text relocations"

[[ " ${imported[*]} " == *" __stack_chk_fail"* ]] || fail "has no stack protector"
if [[ $build == optimised ]]; then
    [[ " ${imported[*]} " =~ \ __[a-z]+_chk[@\ ] ]] || fail "has no fortified function"
fi
if [[ $machine == AArch64 ]]; then
    # Signed return addresses, and marks at the targets of indirect calls.
    code=$("$objdump" -d --no-show-raw-insn "$library")
    [[ $(grep -c 'paciasp' <<<"$code") -gt 100 ]] || fail "does not sign return addresses"
    [[ $(grep -cE '\<bti\>' <<<"$code") -gt 100 ]] || fail "does not mark branch targets"
fi

if [[ $failures -ne 0 ]]; then
    exit 1
fi
echo "${#exported[@]} symbols, needs ${needed[*]}"
