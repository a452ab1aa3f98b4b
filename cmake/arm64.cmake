# 64-bit ARMv8, Debian's aarch64-linux-gnu toolchain.
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(TOVAK_CROSS_TRIPLE aarch64-linux-gnu)
set(TOVAK_QEMU qemu-aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/cross-linux.cmake)
