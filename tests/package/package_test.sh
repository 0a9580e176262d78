#!/usr/bin/env bash
# Installs the library into a directory and uses it from there as a foreign project does.
#
# usage: package_test.sh TEST
#
# Environment: CMAKE, the program; SOURCE and BUILD, the directories of the project; CXX, CXXFLAGS,
# RUNTIME (ON or OFF) and CMAKE_CXX_COMPILER_LAUNCHER as the project was configured; CLANGXX, clang++.
set -euo pipefail

: "${CMAKE:?}" "${SOURCE:?}" "${BUILD:?}" "${CXX:?}" "${CXXFLAGS=}" "${RUNTIME:?}" "${CLANGXX:?}"

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

public_headers()
{
    cd "${SOURCE}/include"
    find . -type f | sort | if [[ ${RUNTIME} == ON ]]; then cat; else grep -v /runtime/; fi
}

installs_what_is_needed_and_no_more()
{
    install_to "${work}/prefix"
    # Every public header, and no other.
    diff <(public_headers) <(cd "${work}/prefix/include" && find . -type f | sort)
    # The names of the rest, wherever the libraries of this system lie.
    local -a expected=(
        libquorval-shared.so
        libquorval-shared.so.0
        quorval.pc
        quorvalConfig.cmake
        quorvalConfigVersion.cmake
        quorvalTargets.cmake
        QuorvalNote.cpp
        QuorvalPlugin.cmake
    )
    if [[ ${RUNTIME} == ON ]]; then
        expected+=(
            libquorval-runtime.so
            libquorval-runtime.so.0
            quorval-runtime.pc
            quorvalRuntimeTargets.cmake
            bin/quorval
            plugins/basic.so
            bash-completion/completions/quorval
            zsh/site-functions/_quorval
            fish/vendor_completions.d/quorval.fish
            lib/systemd/system/quorval@.service
            man1/quorval.1
            man1/quorval-check.1
            man1/quorval-config.1
            man1/quorval-describe.1
            man1/quorval-get.1
            man1/quorval-graph.1
            man1/quorval-list.1
            man1/quorval-new.1
            man1/quorval-recording.1
            man1/quorval-replay.1
            man1/quorval-run.1
            man1/quorval-set.1
            man1/quorval-stop.1
            man1/quorval-top.1
            man5/quorval-graph.5
            man7/quorval-bus.7
            dbus-1/system.d/org.quorval.graph.conf
        )
    fi
    local name
    for name in "${expected[@]}"; do
        [[ -n $(find "${work}/prefix" -path "*/${name}") ]] || fail "${name} is not installed"
    done
    # Nothing of the tests, the examples and the build directory.
    [[ -z $(find "${work}/prefix" -name '*gtest*' -o -name '*.a' -o -name scale.so) ]] ||
        fail "too much is installed"
    ! grep -rqF "${BUILD}" "${work}/prefix" --include='*.cmake' --include='*.pc' ||
        fail "a file names the build directory"
}

names_its_plugin_directory()
{
    install_to "${work}/prefix"
    local wanted named
    PKG_CONFIG_PATH=$(dirname "$(find "${work}/prefix" -name quorval.pc)")
    export PKG_CONFIG_PATH
    wanted=$(realpath -m "$(pkg-config --variable=libdir quorval)/quorval/plugins")
    named=$(pkg-config --variable=plugindir quorval)
    [[ $(realpath -m "${named}") == "${wanted}" ]] || fail "pkg-config names '${named}'"
    mkdir "${work}/project"
    cat >"${work}/project/CMakeLists.txt" <<'END'
cmake_minimum_required(VERSION 3.25)
project(user LANGUAGES CXX)
find_package(quorval REQUIRED)
message("plug-ins: ${quorval_PLUGIN_DIR}")
END
    named=$("${CMAKE}" -S "${work}/project" -B "${work}/project/build" \
        -DCMAKE_PREFIX_PATH="${work}/prefix" 2>&1 | sed -n 's/^plug-ins: //p')
    [[ ${named} == "${wanted}" ]] || fail "the CMake package names '${named}'"
}

# Below DESTDIR, so that nothing gets into the system that runs the test.
names_clean_paths_in_a_system_prefix()
{
    local prefix expected
    for prefix in /usr /usr/local /usr/local/; do
        rm -rf "${work}/system"
        DESTDIR=${work}/system "${CMAKE}" --install "${BUILD}" --prefix "${prefix}" >"${work}/log"
        PKG_CONFIG_PATH=$(dirname "$(find "${work}/system" -name quorval.pc)")
        export PKG_CONFIG_PATH PKG_CONFIG_ALLOW_SYSTEM_CFLAGS=1 PKG_CONFIG_ALLOW_SYSTEM_LIBS=1
        prefix=${prefix%/}
        expected=${PKG_CONFIG_PATH#"${work}/system"}
        expected=${expected%/pkgconfig}
        diff <(echo "${prefix} ${expected} ${expected}/quorval/plugins -I${prefix}/include") \
            <(echo "$(pkg-config --variable=prefix quorval) $(pkg-config --variable=libdir quorval)" \
                "$(pkg-config --variable=plugindir quorval) $(pkg-config --cflags quorval | xargs)") ||
            fail "not the paths of ${prefix}"
    done
}

is_refused_as_a_static_library()
{
    ! "${CMAKE}" -S "${SOURCE}" -B "${work}/build" -DBUILD_SHARED_LIBS=OFF >"${work}/log" 2>&1 ||
        fail "it was configured"
    grep -qF 'BUILD_SHARED_LIBS is OFF, but Quorval is a shared library' "${work}/log" ||
        fail "$(cat "${work}/log")"
}

# Another project's BUILD_SHARED_LIBS is about its own libraries.
is_part_of_another_project()
{
    local project=${work}/project
    mkdir "${project}"
    cp "${SOURCE}"/docs/examples/scale/*.cpp "${project}"
    cat >"${project}/CMakeLists.txt" <<END
cmake_minimum_required(VERSION 3.25)
project(user LANGUAGES CXX)
set(BUILD_SHARED_LIBS OFF)
set(QUORVAL_BUILD_RUNTIME OFF)
add_subdirectory("${SOURCE}" quorval)
quorval_add_plugin(scale scale.cpp)
add_executable(scale_main main.cpp)
target_link_libraries(scale_main PRIVATE quorval::quorval)
install(FILES main.cpp DESTINATION share/user)
END
    "${CMAKE}" -S "${project}" -B "${project}/build"
    "${CMAKE}" --build "${project}/build" --parallel 2
    run_scale "${project}/build/scale_main" "${project}/build"

    "${CMAKE}" --install "${project}/build" --prefix "${work}/asked-for-nothing"
    [[ $(cd "${work}/asked-for-nothing" && find . -type f) == ./share/user/main.cpp ]] ||
        fail "too much is installed"
    "${CMAKE}" -S "${project}" -B "${project}/build" -DQUORVAL_INSTALL=ON
    "${CMAKE}" --build "${project}/build" --parallel 2
    "${CMAKE}" --install "${project}/build" --prefix "${work}/prefix"
    use_with_cmake "${work}/prefix"
}

# Not by CMAKE_CXX_FLAGS: by options of a folder, which reach the library too, of a target, and of
# what a target links. With clang++, which puts the runtime of a sanitizer into programs alone.
links_with_a_sanitizer_of_any_option()
{
    local project=${work}/project
    mkdir -p "${project}/sanitized"
    cp "${SOURCE}"/docs/examples/scale/*.cpp "${project}"
    cat >"${project}/sanitized/CMakeLists.txt" <<END
add_compile_options(-fsanitize=address)
add_link_options(-fsanitize=address)
add_subdirectory("${SOURCE}" quorval)
quorval_add_plugin(scale ../scale.cpp)
add_executable(scale_main ../main.cpp)
target_link_libraries(scale_main PRIVATE quorval::quorval)
END
    cat >"${project}/CMakeLists.txt" <<END
cmake_minimum_required(VERSION 3.25)
project(user LANGUAGES CXX)
set(QUORVAL_BUILD_RUNTIME OFF)
add_subdirectory(sanitized)
quorval_add_plugin(by_target scale.cpp)
target_compile_options(by_target PRIVATE -fsanitize=address)
add_library(sanitizer INTERFACE)
target_compile_options(sanitizer INTERFACE \$<\$<COMPILE_LANGUAGE:CXX>:-fsanitize=address>)
add_library(options INTERFACE)
target_link_libraries(options INTERFACE sanitizer)
quorval_add_plugin(by_library scale.cpp)
target_link_libraries(by_library PRIVATE options)
quorval_add_plugin(incomplete EXCLUDE_FROM_ALL incomplete.cpp)
END
    echo 'extern int missing; int lib_register_cpp() { return missing; }' \
        >"${project}/incomplete.cpp"
    "${CMAKE}" -S "${project}" -B "${project}/build" -DCMAKE_CXX_COMPILER="${CLANGXX}" \
        -DCMAKE_CXX_FLAGS=
    "${CMAKE}" --build "${project}/build" --parallel 2
    run_scale "${project}/build/sanitized/scale_main" "${project}/build/sanitized"

    if "${CMAKE}" --build "${project}/build" --target incomplete >"${work}/incomplete.log" 2>&1; then
        fail "a plug-in with a missing symbol was linked"
    fi
    grep -qF "undefined reference to \`missing'" "${work}/incomplete.log" ||
        fail "$(cat "${work}/incomplete.log")"
}

# Without the runtime, and without anything that the runtime alone needs.
builds_the_core_alone()
{
    local package
    local -a options=(-DQUORVAL_BUILD_RUNTIME=OFF -DQUORVAL_BUILD_TESTS=OFF
        -DQUORVAL_BUILD_EXAMPLES=OFF)
    for package in tomlplusplus CLI11 nlohmann_json LibSystemd; do
        options+=("-DCMAKE_DISABLE_FIND_PACKAGE_${package}=ON")
    done
    "${CMAKE}" -S "${SOURCE}" -B "${work}/build" "${options[@]}"
    "${CMAKE}" --build "${work}/build" --parallel 2
    "${CMAKE}" --install "${work}/build" --prefix "${work}/prefix"
    use_with_cmake "${work}/prefix"
    [[ -z $(find "${work}/prefix" -name '*runtime*' -o -path '*/bin/*') ]] ||
        fail "more than the core is installed"
    finds "${work}/prefix" "" || fail "the core is not found"
    ! finds "${work}/prefix" runtime || fail "a component is found that is not installed"
    grep -qF "The component 'runtime' of quorval is not installed." "${work}/log" ||
        fail "another message: $(cat "${work}/log")"
}

# configures_examples WARNINGS [OPTION...]: configures the core and its examples, whose package is not
# there, in the same directory each time.
configures_examples()
{
    "${CMAKE}" -S "${SOURCE}" -B "${work}/build" -DQUORVAL_BUILD_RUNTIME=OFF -DQUORVAL_BUILD_TESTS=OFF \
        -DCMAKE_DISABLE_FIND_PACKAGE_SndFile=ON "${@:2}" >"${work}/log" 2>&1 || return 1
    [[ $(grep -cF "QUORVAL_BUILD_EXAMPLES is off: SndFile was not found." "${work}/log") == "$1" ]] ||
        fail "$(cat "${work}/log")"
}

# What is on by default is left out with a warning, each time; what was asked for is an error.
leaves_out_what_it_has_no_packages_for()
{
    configures_examples 1 || fail "$(cat "${work}/log")"
    configures_examples 1 || fail "the second time: $(cat "${work}/log")"
    configures_examples 0 -DQUORVAL_BUILD_EXAMPLES=OFF || fail "$(cat "${work}/log")"
    ! configures_examples 0 -DQUORVAL_BUILD_EXAMPLES=ON || fail "a package was not missed"
    ! configures_examples 0 || fail "a package was not missed the second time"
}

# finds PREFIX COMPONENT: whether a project that asks for it can be configured.
finds()
{
    rm -rf "${work}/finds"
    mkdir "${work}/finds"
    cat >"${work}/finds/CMakeLists.txt" <<EOF
cmake_minimum_required(VERSION 3.25)
project(finds LANGUAGES CXX)
find_package(quorval REQUIRED COMPONENTS $2)
if(NOT TARGET quorval::${2:-quorval})
    message(FATAL_ERROR "there is no target quorval::${2:-quorval}")
endif()
EOF
    # On one line: CMake breaks long ones.
    "${CMAKE}" -S "${work}/finds" -B "${work}/finds/build" -DCMAKE_PREFIX_PATH="$1" 2>&1 |
        tr -s ' \n' ' ' >"${work}/log"
}

# runs_numbers COMMAND...: what the graph of the documents writes, run by COMMAND.
runs_numbers()
{
    local output
    output=$("$@" "${SOURCE}/docs/examples/numbers/numbers.toml" | xargs)
    [[ ${output} == "1 2 3 4 5" ]] || fail "$1 wrote '${output}'"
}

# The command, and an application of the runtime, find libraries and plug-ins of an installation that
# was moved.
runs_graphs_as_installed()
{
    unset QUORVAL_PLUGIN_DIR QUORVAL_PLUGIN_PATH
    install_to "${work}/before"
    mv "${work}/before" "${work}/prefix"
    local prefix=${work}/prefix project=${work}/numbers plugins
    "${CMAKE}" -S "${SOURCE}/docs/examples/numbers" -B "${project}" -DCMAKE_PREFIX_PATH="${prefix}"
    "${CMAKE}" --build "${project}"
    runs_numbers "${prefix}/bin/quorval" run --plugin-path "${project}"

    plugins=$(dirname "$(find "${prefix}" -name 'libquorval-runtime.so')")/quorval/plugins
    mkdir -p "${plugins}"
    cp "${project}/numbers.so" "${plugins}"
    runs_numbers "${prefix}/bin/quorval" run
    runs_numbers "${project}/numbers_main"

    local -a flags libraries compile_flags
    PKG_CONFIG_PATH=$(dirname "$(find "${prefix}" -name quorval-runtime.pc)")
    export PKG_CONFIG_PATH
    read -r -a flags < <(pkg-config --cflags quorval-runtime)
    read -r -a libraries < <(pkg-config --libs quorval-runtime)
    read -r -a compile_flags <<<"${CXXFLAGS}"
    "${CXX}" -std=c++17 "${compile_flags[@]}" "${flags[@]}" \
        "${SOURCE}/docs/examples/numbers/main.cpp" -o "${work}/main" "${libraries[@]}"
    LD_LIBRARY_PATH=$(pkg-config --variable=libdir quorval-runtime) runs_numbers "${work}/main"
}

# What `quorval new` writes, used as its README says. A NAME that build systems use themselves is
# no trouble.
#
# builds_a_new_plugin COMPILER NAME
builds_a_new_plugin()
{
    unset QUORVAL_PLUGIN_DIR QUORVAL_PLUGIN_PATH
    local prefix=${work}/prefix name=$2 lines
    install_to "${prefix}"
    export PATH=${prefix}/bin:${PATH} CMAKE_PREFIX_PATH=${prefix} CXX=$1
    export CXXFLAGS="${CXXFLAGS} -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror"
    quorval new "${name}"
    cd "${name}"
    lines=$(grep -E '^(cmake|ctest|quorval) ' README.md)
    [[ $(wc -l <<<"${lines}") == 5 ]] || fail "the README does not show five lines"
    bash -exc "${lines}" >"${work}/log" 2>&1 || fail "$(cat "${work}/log")"
    cat "${work}/log"
    ! grep -i warning "${work}/log" || fail "there are warnings"
    grep -qxF '100% tests passed, 0 tests failed out of 1' "${work}/log" || fail "tests did not run"
    grep -qxF '4 blocks, 3 connections: no problem found' "${work}/log" || fail "nothing was checked"
    # Five values by each of the two runs.
    [[ $(grep -cxE '0|0\.[0-9]+' "${work}/log") == 10 ]] || fail "the graph did not run"
}

builds_a_new_plugin_with_gcc()
{
    builds_a_new_plugin g++ test
}

builds_a_new_plugin_with_clang()
{
    builds_a_new_plugin "${CLANGXX}" my-filter_2
}

follows_the_tutorial()
{
    unset QUORVAL_PLUGIN_DIR QUORVAL_PLUGIN_PATH
    install_to "${work}/prefix"
    export PATH=${work}/prefix/bin:${PATH} CMAKE_PREFIX_PATH=${work}/prefix CXX CXXFLAGS
    mkdir "${work}/tutorial"
    cd "${work}/tutorial"
    python3 "${SOURCE}/tests/docs/follow_tutorial.py" "${SOURCE}/docs/tutorial.md"
}

knows_its_components()
{
    install_to "${work}/prefix"
    finds "${work}/prefix" "" || fail "$(cat "${work}/log")"
    finds "${work}/prefix" runtime || fail "$(cat "${work}/log")"
    ! finds "${work}/prefix" nonsense || fail "a component is found that there is not"
    grep -qF "The component 'nonsense' of quorval is not installed." "${work}/log" ||
        fail "another message: $(cat "${work}/log")"
}

declare -F "$1" >/dev/null || fail "there is no test $1"
cd "${work}"
"$1"
