# Shared by the top-level commands: install what the build needs when it is
# missing, then configure and build into the given directory.
set -euo pipefail

QVFS_TOP=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

qvfs_need_packages() {
    local missing=()
    command -v cmake >/dev/null 2>&1 || missing+=(cmake)
    command -v ninja >/dev/null 2>&1 || missing+=(ninja-build)
    command -v g++ >/dev/null 2>&1 || missing+=(g++)
    command -v pkg-config >/dev/null 2>&1 || missing+=(pkg-config)
    [ -f /usr/include/gtest/gtest.h ] || missing+=(libgtest-dev)
    [ -f /usr/include/gmock/gmock.h ] || missing+=(libgmock-dev)
    [ -f /usr/include/CLI/CLI.hpp ] || missing+=(libcli11-dev)
    [ -f /usr/include/nlohmann/json.hpp ] || missing+=(nlohmann-json3-dev)
    [ -f /usr/include/fmt/format.h ] || missing+=(libfmt-dev)
    for tool in "$@"; do
        case "$tool" in
            clang) command -v clang++ >/dev/null 2>&1 || missing+=(clang) ;;
        esac
    done
    if [ ${#missing[@]} -gt 0 ]; then
        echo "installing: ${missing[*]}"
        local sudo=""
        [ "$(id -u)" -eq 0 ] || sudo="sudo"
        $sudo apt-get update -qq
        DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}" >/dev/null
    fi
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
        echo "installing: ${missing[*]}"
        local sudo=""
        [ "$(id -u)" -eq 0 ] || sudo="sudo"
        dpkg --print-foreign-architectures | grep -qx armhf || $sudo dpkg --add-architecture armhf
        # A mirror caught in the middle of a sync fails one update now and then.
        $sudo apt-get update -qq || { sleep 10; $sudo apt-get update -qq; }
        DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}" >/dev/null
    fi
}
