# Cross build for a big-endian 64-bit CPU (IBM Z), used to prove that every byte layout the hub
# writes or reads is independent of the host's byte order. See cmake/cross-debian.cmake and
# docs/cross-builds.md.
set(CMAKE_SYSTEM_PROCESSOR s390x)
set(TARVO_CROSS_TRIPLET s390x-linux-gnu)
set(TARVO_QEMU s390x)
include(${CMAKE_CURRENT_LIST_DIR}/cross-debian.cmake)
