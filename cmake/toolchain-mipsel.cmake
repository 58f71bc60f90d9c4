# Cross build for a little-endian 32-bit MIPS CPU of router class (o32 ABI, MIPS32 release 2, glibc,
# as Debian builds it). See cmake/cross-debian.cmake and docs/cross-builds.md.
set(CMAKE_SYSTEM_PROCESSOR mipsel)
set(TARVO_CROSS_TRIPLET mipsel-linux-gnu)
set(TARVO_QEMU mipsel)
include(${CMAKE_CURRENT_LIST_DIR}/cross-debian.cmake)
