# Shared by the top-level commands: install what the build needs when it is
# missing, then configure and build into the given directory.
set -euo pipefail

QVFS_TOP=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

# qvfs_apt_install PACKAGE... : apt-get install with retries. A failing
# index update is only a warning: a mirror caught in the middle of a sync
# fails one index while the lists at hand and the other indexes still serve
# every package. What must succeed is the install; it is tried
# QVFS_APT_TRIES times (4), QVFS_APT_PAUSE seconds (15) apart, each time
# after a fresh update.
qvfs_apt_install() {
    local sudo="" try tries=${QVFS_APT_TRIES:-4} pause=${QVFS_APT_PAUSE:-15}
    [ "$(id -u)" -eq 0 ] || sudo="sudo"
    for ((try = 1; ; try++)); do
        $sudo apt-get update -qq ||
            echo "warning: apt-get update failed (try $try of $tries); installing from the package lists at hand" >&2
        if $sudo env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "$@" >/dev/null; then
            return 0
        fi
        [ "$try" -lt "$tries" ] || break
        echo "warning: installing $* failed (try $try of $tries); trying again in $pause s" >&2
        sleep "$pause"
    done
    echo "cannot install: $*" >&2
    return 1
}

# Installs the packages named when missing.
qvfs_install_missing() {
    [ $# -gt 0 ] || return 0
    echo "installing: $*"
    qvfs_apt_install "$@"
}

# What the library and the demo need: a compiler, CMake and Ninja.
qvfs_missing_build_tools() {
    command -v cmake >/dev/null 2>&1 || echo cmake
    command -v ninja >/dev/null 2>&1 || echo ninja-build
    command -v g++ >/dev/null 2>&1 || echo g++
}

qvfs_need_build_tools() {
    # shellcheck disable=SC2046
    qvfs_install_missing $(qvfs_missing_build_tools)
}

# Everything (test.sh, CI): the build tools, GoogleTest, the qvfs tool's
# libraries, libfuse3 and fusermount3 for its FUSE view, xmllint for the
# check of its pictures; "clang" adds clang.
qvfs_need_packages() {
    local missing
    missing=$(qvfs_missing_build_tools)
    command -v pkg-config >/dev/null 2>&1 || missing+=" pkg-config"
    [ -f /usr/include/gtest/gtest.h ] || missing+=" libgtest-dev"
    [ -f /usr/include/gmock/gmock.h ] || missing+=" libgmock-dev"
    [ -f /usr/include/CLI/CLI.hpp ] || missing+=" libcli11-dev"
    [ -f /usr/include/nlohmann/json.hpp ] || missing+=" nlohmann-json3-dev"
    [ -f /usr/include/fmt/format.h ] || missing+=" libfmt-dev"
    [ -f /usr/include/fuse3/fuse.h ] || missing+=" libfuse3-dev"
    command -v fusermount3 >/dev/null 2>&1 || missing+=" fuse3"
    command -v xmllint >/dev/null 2>&1 || missing+=" libxml2-utils"
    for tool in "$@"; do
        case "$tool" in
            clang) command -v clang++ >/dev/null 2>&1 || missing+=" clang" ;;
        esac
    done
    # shellcheck disable=SC2086
    qvfs_install_missing $missing
}

# qvfs_build DIR [cmake options...]
qvfs_build() {
    local dir=$1
    shift
    cmake -S "$QVFS_TOP" -B "$dir" -G Ninja "$@" >/dev/null
    cmake --build "$dir" -j "$(nproc)"
}

# The 32-bit ARM cross compiler, the user-mode emulator that runs its
# programs here, the GoogleTest sources to build for that target, and the
# libraries the tools link, as Debian's ARM (multiarch) packages.
qvfs_need_armhf_packages() {
    local missing=()
    command -v arm-linux-gnueabihf-g++ >/dev/null 2>&1 || missing+=(g++-arm-linux-gnueabihf)
    command -v qemu-arm >/dev/null 2>&1 || command -v qemu-arm-static >/dev/null 2>&1 ||
        missing+=(qemu-user)
    [ -f /usr/src/googletest/CMakeLists.txt ] || missing+=(googletest)
    [ -d /usr/share/cmake/CLI11 ] || missing+=(libcli11-dev)
    [ -d /usr/share/cmake/nlohmann_json ] || missing+=(nlohmann-json3-dev)
    [ -d /usr/lib/arm-linux-gnueabihf/cmake/fmt ] || missing+=(libfmt-dev:armhf)
    if [ ${#missing[@]} -gt 0 ]; then
        local sudo=""
        [ "$(id -u)" -eq 0 ] || sudo="sudo"
        dpkg --print-foreign-architectures | grep -qx armhf || $sudo dpkg --add-architecture armhf
        qvfs_install_missing "${missing[@]}"
    fi
}

# qvfs_build_quiet DIR TARGET [cmake options...]: configures and builds one
# target (with what it depends on) and prints only what went wrong. A build
# directory made here leaves the test suite out (it needs GoogleTest);
# test.sh switches it on.
qvfs_build_quiet() {
    local dir=$1 target=$2 log
    shift 2
    local fresh=()
    [ -f "$dir/CMakeCache.txt" ] || fresh=(-DQVFS_BUILD_TESTS=OFF)
    log=$(mktemp)
    if ! { cmake -S "$QVFS_TOP" -B "$dir" -G Ninja "${fresh[@]}" "$@" &&
        cmake --build "$dir" -j "$(nproc)" --target "$target"; } >"$log" 2>&1; then
        grep -v '^\[[0-9]*/[0-9]*\] ' "$log" >&2
        rm -f "$log"
        return 1
    fi
    rm -f "$log"
}

# System V objects as "KIND KEY ID" lines (segment or semaphore), sorted.
qvfs_ipc_objects() {
    ipcs -m -s 2>/dev/null | awk '/Shared Memory/ { k = "segment" } /Semaphore/ { k = "semaphore" }
        /^0x/ { print k, $1, $2 }' | sort
}
