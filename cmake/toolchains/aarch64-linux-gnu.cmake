# Cross-building for 64-bit ARM Linux with Debian's g++-aarch64-linux-gnu
# against the arm64 packages installed beside the native ones (multiarch).
# Test programs run under qemu-user: CTest and gtest_discover_tests use the
# emulator below.
#   cmake -S . -B build-arm64 -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/aarch64-linux-gnu.cmake
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(triple aarch64-linux-gnu)
set(CMAKE_C_COMPILER ${triple}-gcc)
set(CMAKE_CXX_COMPILER ${triple}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${triple})

# Headers shared by every architecture stay in /usr/include; libraries and
# configuration headers come from the arm64 directories only.
set(CMAKE_FIND_ROOT_PATH /usr/${triple})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/${triple}/pkgconfig:/usr/share/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "")

# The programs run on the arm64 C library of the multiarch packages
# (/lib/ld-linux-aarch64.so.1), the one the arm64 libcurl and ICU come with:
# no -L /usr/aarch64-linux-gnu, whose older loader, mixed with that C
# library, hangs every program that starts a thread.
find_program(KORVEL_QEMU_AARCH64 qemu-aarch64 REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR ${KORVEL_QEMU_AARCH64})
