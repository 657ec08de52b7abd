# What the toolchain files share: Debian's cross compiler, the libraries of a directory that
# packaging/make-sysroot has filled, and QEMU's user emulation for programs that run on the way.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${QUILLON_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${QUILLON_TRIPLET}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${QUILLON_TRIPLET})

get_filename_component(QUILLON_MADE_SYSROOT
    "${CMAKE_CURRENT_LIST_DIR}/../../build/sysroot/${QUILLON_DEBIAN_ARCHITECTURE}" ABSOLUTE)
set(QUILLON_SYSROOT "${QUILLON_MADE_SYSROOT}" CACHE PATH "libraries and headers of the other machine")
set(CMAKE_SYSROOT "${QUILLON_SYSROOT}")
if(NOT EXISTS "${CMAKE_SYSROOT}/usr/lib/${QUILLON_TRIPLET}")
    message(FATAL_ERROR "no libraries for ${QUILLON_DEBIAN_ARCHITECTURE} in ${CMAKE_SYSROOT}: "
        "run packaging/make-sysroot ${QUILLON_DEBIAN_ARCHITECTURE}")
endif()
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES QUILLON_SYSROOT)

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${CMAKE_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR}
    "${CMAKE_SYSROOT}/usr/lib/${QUILLON_TRIPLET}/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig")

set(CMAKE_CROSSCOMPILING_EMULATOR "${QUILLON_EMULATOR};-L;${CMAKE_SYSROOT}")
