# Cross-compiles for 64-bit ARM Linux with Debian's aarch64-linux-gnu toolchain and
# runs the results (test discovery, ctest) through qemu-user.
#   cmake -S . -B build/aarch64 -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake
# Dependencies come from Debian multiarch (libgtest-dev:arm64 and the like) under
# /usr/lib/aarch64-linux-gnu, which CMake searches once CMAKE_LIBRARY_ARCHITECTURE is set.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(ZARN_CROSS_TRIPLE aarch64-linux-gnu)
set(CMAKE_C_COMPILER ${ZARN_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${ZARN_CROSS_TRIPLE}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${ZARN_CROSS_TRIPLE})

# The cross C library lives in /usr/aarch64-linux-gnu; multiarch packages install into /usr.
set(CMAKE_FIND_ROOT_PATH /usr/${ZARN_CROSS_TRIPLE} /usr)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

find_program(ZARN_QEMU_AARCH64 NAMES qemu-${CMAKE_SYSTEM_PROCESSOR} qemu-${CMAKE_SYSTEM_PROCESSOR}-static)
if(ZARN_QEMU_AARCH64)
  # With libc6:arm64 installed (multiarch) the guest's loader and libraries sit where an aarch64
  # system has them, and qemu needs no -L prefix. Prefer that: under qemu 7.2 a dynamically linked
  # guest run with -L hangs in any forked child, and the death tests fork.
  if(EXISTS /lib/ld-linux-${CMAKE_SYSTEM_PROCESSOR}.so.1)
    set(CMAKE_CROSSCOMPILING_EMULATOR ${ZARN_QEMU_AARCH64})
  else()
    set(CMAKE_CROSSCOMPILING_EMULATOR ${ZARN_QEMU_AARCH64} -L /usr/${ZARN_CROSS_TRIPLE})
  endif()
endif()
