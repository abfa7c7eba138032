# Cross build for 32-bit ARM (armhf) on Debian with multiarch: the compilers come from
# crossbuild-essential-armhf, the target's libraries (android-libutils-dev:armhf,
# libgtest-dev:armhf, ...) sit beside the build machine's under /usr/lib/arm-linux-gnueabihf,
# and the multiarch triplet below makes every find_library/find_package look there first.
# scripts/test-armhf.sh builds with it and runs the tests under qemu-user.
#   cmake -S . -B build-armhf -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armhf.cmake
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
# GCC notes that std::vector iterators are passed differently than by GCC 6 on ARM; nothing
# here links against code built by GCC 6.
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")
