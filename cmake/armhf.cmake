# 32-bit ARMv7 (hard float), Debian's arm-linux-gnueabihf toolchain.
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(TOVAK_CROSS_TRIPLE arm-linux-gnueabihf)
set(TOVAK_QEMU qemu-arm)
include(${CMAKE_CURRENT_LIST_DIR}/cross-linux.cmake)
