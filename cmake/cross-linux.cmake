# Shared part of the ARM toolchain files: Debian's cross g++ for
# TOVAK_CROSS_TRIPLE, target programs run through qemu-user.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${TOVAK_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${TOVAK_CROSS_TRIPLE}-g++)
# 64-bit file offsets and directory entries, as bionic has on every ABI:
# 32-bit glibc's readdir fails with EOVERFLOW on the 64-bit hashes that a
# 64-bit host filesystem gives as directory offsets under qemu.
set(CMAKE_C_FLAGS_INIT -D_FILE_OFFSET_BITS=64)
# -Wno-psabi: GCC notes on every std::map argument that GCC 7.1 changed how
# ARM passes it, which concerns only objects built by GCC 6 or older.
set(CMAKE_CXX_FLAGS_INIT "-D_FILE_OFFSET_BITS=64 -Wno-psabi")

# Target libraries come from the cross sysroot and from TOVAK_CROSS_DEPS, a
# prefix holding what Debian ships only as sources or headers (GoogleTest
# built for the target, nlohmann-json), so that no host library or header
# directory ever reaches the target's compile.
set(CMAKE_FIND_ROOT_PATH /usr/${TOVAK_CROSS_TRIPLE})
if(TOVAK_CROSS_DEPS)
  list(APPEND CMAKE_FIND_ROOT_PATH ${TOVAK_CROSS_DEPS})
endif()
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES TOVAK_CROSS_DEPS)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Tests, and GoogleTest's discovery at build time, run the target's
# programs under emulation with the target's own loader and libraries.
set(CMAKE_CROSSCOMPILING_EMULATOR ${TOVAK_QEMU} -L /usr/${TOVAK_CROSS_TRIPLE})
