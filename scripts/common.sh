# What the scripts behind ./dev share; they read it with `source`.
# shellcheck shell=bash

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

# Which script speaks: "build" for scripts/dev-build.
command_name=${0##*/}
command_name=${command_name#dev-}

say()
{
    printf '%s: %s\n' "${command_name}" "$*"
}

die()
{
    printf '%s: %s\n' "${command_name}" "$*" >&2
    exit 1
}

usage_error()
{
    printf '%s: %s; ./dev %s --help tells more\n' "${command_name}" "$*" "${command_name}" >&2
    exit 2
}

# is_one_of WORD WORDS...
is_one_of()
{
    local word=$1 other
    shift
    for other; do
        [[ ${other} != "${word}" ]] || return 0
    done
    return 1
}

# The Debian packages that a part of the work needs, by group.
declare -A package_groups=(
    [build]="g++ cmake make ninja-build libcereal-dev"
    [runtime]="libmosquitto-dev libssl-dev libsystemd-dev libsqlite3-dev libtbb-dev libtomlplusplus-dev
        libcli11-dev nlohmann-json3-dev systemtap-sdt-dev"
    [examples]="libsndfile1-dev"
    [test]="libgtest-dev libgmock-dev libsystemd-dev clang libclang-rt-14-dev pkg-config python3
        python3-jsonschema bash-completion dbus fish graphviz mosquitto openssl python3-dbus systemd zsh"
    [demo]="alsa-utils mosquitto"
    [bench]="libbenchmark-dev python3 python3-matplotlib pkg-config valgrind libcereal-dev nlohmann-json3-dev
        libboost-dev libtomlplusplus-dev libprotobuf-dev protobuf-compiler libsqlite3-dev libglib2.0-dev
        libgstreamer1.0-dev libclass-loader-dev librcpputils-dev libtbb-dev dbus mosquitto
        cppzmq-dev"
    [lint]="clang-format clang-tidy cppcheck shellcheck"
    [aarch64]="g++-aarch64-linux-gnu qemu-user googletest"
    [abi]="abigail-tools"
    [package]="build-essential debhelper dpkg-dev fakeroot lintian pkg-config"
    [autopkgtest]="autopkgtest"
    [valgrind]="valgrind"
    [fuzz]="clang libclang-rt-14-dev"
    [coverage]="gcovr"
    [docs]="doxygen mandoc groff-base perl"
    [bare]="mmdebstrap"
)

# Libraries of another architecture: see need_architecture.
package_groups[runtime_arm64]="libmosquitto-dev:arm64 libssl-dev:arm64 libsystemd-dev:arm64 libsqlite3-dev:arm64
    libtbb-dev:arm64 libtomlplusplus-dev:arm64 systemtap-sdt-dev:arm64"

# missing_packages GROUP...: the packages of the groups that are not installed.
missing_packages()
{
    local group architecture
    architecture=$(dpkg --print-architecture)
    for group; do
        # The list is words: package names, some with an architecture.
        # shellcheck disable=SC2086
        printf '%s\n' ${package_groups[${group}]}
    done | sort -u | while read -r package; do
        # One line for each architecture that the package is installed for.
        dpkg-query -W -f='${db:Status-Status} ${Architecture}\n' "${package}" 2>/dev/null |
            grep -qxE "installed (all|${architecture}|${package##*:})" || echo "${package}"
    done
}

# need GROUP...: installs what is missing of the groups. Without anything to install it needs
# neither the network nor a certain user.
need()
{
    local group
    for group; do
        [[ -v package_groups[${group}] ]] || die "there is no group of packages '${group}'"
    done
    if ! command -v dpkg-query >/dev/null; then
        say "this is no Debian: the packages of '$*' are taken to be installed"
        return
    fi
    local -a missing as_root=()
    mapfile -t missing < <(missing_packages "$@")
    if ((${#missing[@]} == 0)); then
        return
    fi
    if ((EUID != 0)); then
        command -v sudo >/dev/null ||
            die "neither root nor sudo; these packages are missing: ${missing[*]}"
        as_root=(sudo)
    fi
    say "installing ${missing[*]}"
    as_root+=(env DEBIAN_FRONTEND=noninteractive apt-get -q -y -o DPkg::Lock::Timeout=600)
    "${as_root[@]}" update
    "${as_root[@]}" install --no-install-recommends "${missing[@]}"
}

# need_architecture NAME: lets packages of another architecture be installed.
need_architecture()
{
    if dpkg --print-foreign-architectures | grep -qxF "$1"; then
        return
    fi
    if ((EUID == 0)); then
        dpkg --add-architecture "$1"
    else
        sudo dpkg --add-architecture "$1"
    fi
}

# need_cross_runtime: what the runtime is built with for AArch64 on a machine that is none.
need_cross_runtime()
{
    if command -v dpkg >/dev/null && [[ $(dpkg --print-architecture) != arm64 ]]; then
        need_architecture arm64
        need runtime_arm64
    fi
}

# check_preset NAME
check_preset()
{
    local known
    known=$(sed -n '/"buildPresets"/,/\]/s/.*"name": *"\([^"]*\)".*/\1/p' "${root}/CMakePresets.json")
    grep -qxF -e "$1" <<<"${known}" ||
        usage_error "there is no preset '$1'; there are: ${known//$'\n'/, }"
}

# check_ctest_arguments ARGUMENT...: ctest takes no notice of an option that it does not know.
check_ctest_arguments()
{
    local known argument name
    known=$(ctest --help | grep -E '^  -' | sed 's/=.*//' | grep -oE -e '-[-A-Za-z]+')
    for argument; do
        if [[ ${argument} == -* ]]; then
            name=${argument%%=*}
            if [[ ${name} =~ ^-[A-Za-z][0-9]+$ ]]; then
                name=${name:0:2}
            fi
            grep -qxF -e "${name}" <<<"${known}" || usage_error "unknown option '${argument}'"
        fi
    done
}

# cached DIRECTORY NAME: the value of a variable in a build directory, empty when there is none.
cached()
{
    sed -n "s/^$2:[^=]*=//p" "$1/CMakeCache.txt" 2>/dev/null || true
}

# configure PRESET PARTS OPTIONS...: configures build/PRESET with PARTS, a list of TESTS, EXAMPLES
# and BENCHMARKS. Other parts stay as they are; in a new directory they are off.
configure()
{
    local preset=$1 parts=$2 part setting
    shift 2
    local -a options=()
    for part in TESTS EXAMPLES BENCHMARKS; do
        if [[ " ${parts} " == *" ${part} "* ]]; then
            setting=ON
        else
            setting=$(cached "${root}/build/${preset}" "QUORVAL_BUILD_${part}")
        fi
        options+=("-DQUORVAL_BUILD_${part}=${setting:-OFF}")
    done
    # Said in any case: a build directory may be older than an installation or removal of ccache.
    options+=("-DCMAKE_CXX_COMPILER_LAUNCHER=$(command -v ccache || true)")
    (cd "${root}" && cmake --preset "${preset}" "${options[@]}" "$@")
}

# build PRESET OPTIONS...
build()
{
    (cd "${root}" && cmake --build --preset "$@")
}

# list_sources PATTERN...: the files of the project whose paths match, without those that git
# ignores, one per line, from the project's root. A "*" stands for any text, with "/" in it, too.
list_sources()
{
    (
        cd "${root}" || exit
        (($# > 0)) || set -- '*'
        if git rev-parse --is-inside-work-tree >/dev/null 2>&1; then
            git ls-files --cached --others --exclude-standard -- "$@"
        else
            local -a tests=()
            local pattern
            for pattern; do
                tests+=(-o -path "./${pattern}")
            done
            find . \( -path ./build -o -name .git \) -prune -o -type f \( "${tests[@]:1}" \) -print |
                sed 's|^\./||'
        fi | while read -r file; do
            # What is deleted and not yet committed is still listed.
            if [[ -f ${file} ]]; then
                echo "${file}"
            fi
        done | sort -u
    )
}
