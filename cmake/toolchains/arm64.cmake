# 64-bit Arm, as Debian's arm64.
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(QUILLON_DEBIAN_ARCHITECTURE arm64)
set(QUILLON_TRIPLET aarch64-linux-gnu)
set(QUILLON_EMULATOR qemu-aarch64)
include("${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake")
