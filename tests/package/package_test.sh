#!/usr/bin/env bash
# Installs the library into a directory and uses it from there as a foreign project does.
#
# usage: package_test.sh TEST
#
# Environment: CMAKE, the program; SOURCE and BUILD, the directories of the project; CXX, CXXFLAGS
# and CMAKE_CXX_COMPILER_LAUNCHER as the project was configured.
set -euo pipefail

: "${CMAKE:?}" "${SOURCE:?}" "${BUILD:?}" "${CXX:?}" "${CXXFLAGS=}"

work=$(mktemp -d)
trap 'rm -rf "${work}"' EXIT

fail()
{
    echo "$*" >&2
    exit 1
}

install_to()
{
    "${CMAKE}" --install "${BUILD}" --prefix "$1" >"${work}/install.log" ||
        fail "$(cat "${work}/install.log")"
}

# run_scale PROGRAM PLUGIN_DIRECTORY
run_scale()
{
    local output
    output=$(QUORVAL_PLUGIN_DIR=$2 "$1")
    [[ ${output} == 30 ]] || fail "the program wrote '${output}'"
}

use_with_cmake()
{
    local prefix=$1 project=${work}/with-cmake
    "${CMAKE}" -S "${SOURCE}/docs/examples/scale" -B "${project}" -DCMAKE_PREFIX_PATH="${prefix}"
    "${CMAKE}" --build "${project}"
    grep -qF "quorval_DIR:PATH=${prefix}/" "${project}/CMakeCache.txt" ||
        fail "another installation was found"
    run_scale "${project}/scale_main" "${project}"
}

use_with_pkg_config()
{
    local prefix=$1 project=${work}/with-pkg-config sources=${SOURCE}/docs/examples/scale
    local -a flags libraries compile_flags
    PKG_CONFIG_PATH=$(dirname "$(find "${prefix}" -name quorval.pc)")
    export PKG_CONFIG_PATH
    read -r -a flags < <(pkg-config --cflags quorval)
    read -r -a libraries < <(pkg-config --libs quorval)
    read -r -a compile_flags <<<"${CXXFLAGS}"
    compile_flags+=(-std=c++17)
    mkdir "${project}"
    "${CXX}" "${compile_flags[@]}" -fPIC -fvisibility=hidden -shared "${flags[@]}" \
        "${sources}/scale.cpp" -o "${project}/scale.so" "${libraries[@]}"
    "${CXX}" "${compile_flags[@]}" "${flags[@]}" "${sources}/main.cpp" -o "${project}/main" \
        "${libraries[@]}"
    LD_LIBRARY_PATH=$(pkg-config --variable=libdir quorval)
    export LD_LIBRARY_PATH
    run_scale "${project}/main" "${project}"
}

is_found_by_cmake()
{
    install_to "${work}/prefix"
    use_with_cmake "${work}/prefix"
}

is_found_by_pkg_config()
{
    install_to "${work}/prefix"
    use_with_pkg_config "${work}/prefix"
}

is_found_after_a_move()
{
    install_to "${work}/prefix"
    mv "${work}/prefix" "${work}/moved"
    ! grep -rqF "${work}/prefix" "${work}/moved" || fail "a file names the old place"
    use_with_cmake "${work}/moved"
    use_with_pkg_config "${work}/moved"
}

installs_what_is_needed_and_no_more()
{
    install_to "${work}/prefix"
    # Every public header, and no other.
    diff <(cd "${SOURCE}/include" && find . -type f | sort) \
        <(cd "${work}/prefix/include" && find . -type f | sort)
    # The names of the rest, wherever the libraries of this system lie.
    local -a expected=(
        libquorval-shared.so
        libquorval-shared.so.0
        quorval.pc
        quorvalConfig.cmake
        quorvalConfigVersion.cmake
        quorvalTargets.cmake
        QuorvalPlugin.cmake
    )
    local name
    for name in "${expected[@]}"; do
        [[ -n $(find "${work}/prefix" -name "${name}") ]] || fail "${name} is not installed"
    done
    # Nothing of the tests, the examples and the build directory.
    [[ -z $(find "${work}/prefix" -name '*gtest*' -o -name '*.a' -o -name scale.so) ]] ||
        fail "too much is installed"
    ! grep -rqF "${BUILD}" "${work}/prefix" --include='*.cmake' --include='*.pc' ||
        fail "a file names the build directory"
}

# The library alone is built here: the tests, which take longer, are built by whoever runs this one.
builds_without_arguments()
{
    unset CXXFLAGS
    "${CMAKE}" -S "${SOURCE}" -B "${work}/build" 2>&1
    "${CMAKE}" --build "${work}/build" --target quorval --parallel 2
    "${CMAKE}" --install "${work}/build" --prefix "${work}/prefix"
    use_with_cmake "${work}/prefix"
}

cd "${work}"
case "$1" in
is_found_by_cmake | is_found_by_pkg_config | is_found_after_a_move | \
    installs_what_is_needed_and_no_more | builds_without_arguments) "$1" ;;
*) fail "there is no test $1" ;;
esac
