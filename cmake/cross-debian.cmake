# Shared part of the cross toolchain files: Debian's cross compiler for TARVO_CROSS_TRIPLET, a
# sysroot made by scripts/cross-sysroot.sh (TARVO_SYSROOT, given with -D or in the environment)
# and qemu's user-mode emulator to run what is built (tests, benchmarks, test discovery).
#
#   cmake -S . -B build-mipsel -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-mipsel.cmake \
#         -DTARVO_SYSROOT="$(scripts/cross-sysroot.sh mipsel)"
set(CMAKE_SYSTEM_NAME Linux)

if(NOT TARVO_SYSROOT AND DEFINED ENV{TARVO_SYSROOT})
  set(TARVO_SYSROOT "$ENV{TARVO_SYSROOT}")
endif()
if(NOT TARVO_SYSROOT OR NOT EXISTS "${TARVO_SYSROOT}/usr/lib/${TARVO_CROSS_TRIPLET}")
  message(FATAL_ERROR "TARVO_SYSROOT must name a ${TARVO_CROSS_TRIPLET} sysroot "
                      "(scripts/cross-sysroot.sh prints one)")
endif()
# try_compile projects and the package Makefile's sub-builds see the same values
set(ENV{TARVO_SYSROOT} "${TARVO_SYSROOT}")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES TARVO_SYSROOT TARVO_CROSS_TRIPLET TARVO_QEMU)

set(CMAKE_C_COMPILER ${TARVO_CROSS_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${TARVO_CROSS_TRIPLET}-g++)
set(CMAKE_SYSROOT "${TARVO_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH "${TARVO_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_LIBRARY_ARCHITECTURE ${TARVO_CROSS_TRIPLET})

# pkg-config reads the target's .pc files and puts the sysroot in front of their paths
set(ENV{PKG_CONFIG_DIR} "")
set(ENV{PKG_CONFIG_LIBDIR}
    "${TARVO_SYSROOT}/usr/lib/${TARVO_CROSS_TRIPLET}/pkgconfig:${TARVO_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${TARVO_SYSROOT}")

# The libraries that the FFmpeg and curl libraries need in turn are found by the linker here.
set(TARVO_CROSS_LINK_FLAGS
    "-Wl,-rpath-link,${TARVO_SYSROOT}/usr/lib/${TARVO_CROSS_TRIPLET}:${TARVO_SYSROOT}/lib/${TARVO_CROSS_TRIPLET}")
set(CMAKE_EXE_LINKER_FLAGS_INIT "${TARVO_CROSS_LINK_FLAGS}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${TARVO_CROSS_LINK_FLAGS}")

# What was built runs under qemu with the sysroot as its root for libraries.
find_program(TARVO_QEMU_PROGRAM qemu-${TARVO_QEMU} qemu-${TARVO_QEMU}-static)
if(TARVO_QEMU_PROGRAM)
  set(CMAKE_CROSSCOMPILING_EMULATOR "${TARVO_QEMU_PROGRAM};-L;${TARVO_SYSROOT}")
endif()
