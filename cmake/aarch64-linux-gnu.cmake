# Cross-build for the board: cmake -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake
# Needs Debian's g++-aarch64-linux-gnu; the black-box tests of such a build run
# the binary under qemu-user (Debian's qemu-user) on the machine's multiarch
# arm64 runtime (libc6:arm64, which libmicrohttpd-dev:arm64 brings).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_FIND_ROOT_PATH /usr/aarch64-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
# No "-L /usr/aarch64-linux-gnu": that loader is the cross toolchain's glibc
# build, while the loader cache names the multiarch libc.so.6 of another
# build; mixed, the first thread the HTTP library starts spun for ever.
# Without -L, loader and libraries are all the multiarch ones.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64)
