# Cross build for the recorders' target: 32-bit ARM Linux, hard-float ABI
# (Debian's arm-linux-gnueabihf cross compiler). There `long` and pointers
# are 4 bytes and `time_t` is 32-bit, which is the target every shared-memory
# and on-disk record of qvfs is laid out for.
#
#   cmake -S . -B build-armhf -G Ninja \
#         -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armhf.cmake
#
# Programs built here run on an x86_64 machine under qemu-arm (Debian's
# qemu-user); ctest and gtest_discover_tests start them through
# CMAKE_CROSSCOMPILING_EMULATOR, with Debian's ARM C library (multiarch) or
# the one of the cross sysroot. System calls (System V IPC, fork, threads, files) go to the
# host kernel, so the tests use the same sandbox roots and images as natively.
# scripts/armhf.sh does all of it in one command.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(QVFS_ARMHF_TRIPLE "arm-linux-gnueabihf" CACHE STRING "Target triple of the ARM cross compiler")
set(QVFS_ARMHF_SYSROOT "/usr/${QVFS_ARMHF_TRIPLE}" CACHE PATH "Libraries and headers of the ARM target")

set(CMAKE_C_COMPILER "${QVFS_ARMHF_TRIPLE}-gcc")
set(CMAKE_CXX_COMPILER "${QVFS_ARMHF_TRIPLE}-g++")
# -Wno-psabi: silences the notes that the ARM passing of some structures
# changed in GCC 7.1; everything here is built with one compiler.
set(CMAKE_C_FLAGS_INIT "-Wno-psabi")
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")

# Libraries and packages come from the target side only: the cross sysroot,
# and Debian's multiarch directories (/usr/lib/arm-linux-gnueabihf, packages
# installed as name:armhf) next to the architecture-independent ones
# (/usr/include, /usr/share/cmake) of the host. Programs (the emulator, nm,
# the compilers) come from the host.
set(CMAKE_LIBRARY_ARCHITECTURE "${QVFS_ARMHF_TRIPLE}")
list(APPEND CMAKE_FIND_ROOT_PATH "${QVFS_ARMHF_SYSROOT}" "/")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

find_program(QVFS_QEMU_ARM NAMES qemu-arm qemu-arm-static)
if(QVFS_QEMU_ARM)
  if(EXISTS "/lib/ld-linux-armhf.so.3")
    # Debian's ARM C library is installed (libc6:armhf, pulled in by the
    # multiarch packages): its loader and its library cache serve every ARM
    # library. Mixing it with the cross sysroot's loader would crash.
    set(CMAKE_CROSSCOMPILING_EMULATOR "${QVFS_QEMU_ARM}")
  else()
    # -L: where qemu finds the ARM dynamic loader and C library.
    set(CMAKE_CROSSCOMPILING_EMULATOR "${QVFS_QEMU_ARM};-L;${QVFS_ARMHF_SYSROOT}")
  endif()
  # For scripts that run the built programs themselves.
  set(QVFS_ARMHF_EMULATOR "${CMAKE_CROSSCOMPILING_EMULATOR}" CACHE INTERNAL "command that runs ARM programs")
endif()
