# Cross-compiles for 64-bit ARM Linux with Debian's cross toolchain
# (crossbuild-essential-arm64) against the arm64 multiarch packages that
# `scripts/setup --arm64` installs next to the native ones.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
# The triplet-named pkg-config looks only in the arm64 .pc directories.
set(PKG_CONFIG_EXECUTABLE aarch64-linux-gnu-pkg-config CACHE FILEPATH "")

# Multiarch keeps both architectures' libraries under /usr: only the
# architecture directory tells them apart, so programs found must be the
# host's and libraries the target's.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)

# Test programs run under user-mode emulation; the arm64 loader and libc
# come from the multiarch libc6:arm64 package under /usr/lib/aarch64-linux-gnu.
find_program(PALOMIR_QEMU_AARCH64 qemu-aarch64)
if(PALOMIR_QEMU_AARCH64)
  set(CMAKE_CROSSCOMPILING_EMULATOR "${PALOMIR_QEMU_AARCH64}")
endif()
