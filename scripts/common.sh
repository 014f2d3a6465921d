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
