# 32-bit Arm with hardware floating point (ARMv7), as Debian's armhf.
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(QUILLON_DEBIAN_ARCHITECTURE armhf)
set(QUILLON_TRIPLET arm-linux-gnueabihf)
set(QUILLON_EMULATOR qemu-arm)
# No remarks on how GCC passed arguments before release 7.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
include("${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake")
