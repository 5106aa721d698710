# Cross-build for the handset's application processor: 32-bit ARM Linux,
# hard-float ABI, with Debian's cross compilers (g++-arm-linux-gnueabihf).
#
#   cmake -S . -B build-arm -DCMAKE_TOOLCHAIN_FILE=cmake/arm-linux-gnueabihf.cmake
#
# Programs built here run on a host under qemu-arm (qemu-user): CTest starts
# every test executable through CMAKE_CROSSCOMPILING_EMULATOR, and the
# integration tests start the programs they drive through the emulator named
# in LAPI_TEST_EMULATOR (scripts/test.sh --arm sets both).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(LAPI_TARGET_TRIPLE arm-linux-gnueabihf)
set(CMAKE_C_COMPILER ${LAPI_TARGET_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${LAPI_TARGET_TRIPLE}-g++)

# 64-bit file offsets on the 32-bit target: without them readdir fails with
# EOVERFLOW on file systems whose directory offsets are 64-bit hashes (the
# trusted roots in ROOT/etc/certs/ would be missed), and stat fails on
# large files. time_t stays as the target's libraries were built.
set(CMAKE_C_FLAGS_INIT "-D_FILE_OFFSET_BITS=64")
# -Wno-psabi: g++ notes on every std::sort of doubles that GCC 7.1 changed
# how such iterators are passed on ARM; every object here is built by the
# same compiler, so the note says nothing about this build.
set(CMAKE_CXX_FLAGS_INIT "-D_FILE_OFFSET_BITS=64 -Wno-psabi")

# The target's libraries and headers live here; host programs (scdoc, the
# emulator) are still found on the host's PATH.
set(CMAKE_FIND_ROOT_PATH /usr/${LAPI_TARGET_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

find_program(LAPI_QEMU_ARM qemu-arm)
if(LAPI_QEMU_ARM)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${LAPI_QEMU_ARM} -L /usr/${LAPI_TARGET_TRIPLE})
endif()
