# Cross build for the unit's 32-bit ARM (armhf) on a Debian host with multiarch:
#   dpkg --add-architecture armhf
#   apt-get install crossbuild-essential-armhf qemu-user-static \
#     libsystemd-dev:armhf libsigc++-2.0-dev:armhf libgtest-dev:armhf libgmock-dev:armhf
# (scripts/install-deps --armhf does this). The armhf libraries live beside the host's in
# /usr/lib/arm-linux-gnueabihf, so there is no sysroot: the library architecture keeps
# find_package and find_library away from the x86-64 copies.
#   cmake --preset armhf     (CMakePresets.json: build/armhf), or by hand:
#   cmake -S . -B build/armhf -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armhf.cmake \
#     -DQB_BUILD_BENCHMARKS=OFF

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(QB_CROSS_TRIPLET arm-linux-gnueabihf)
set(CMAKE_C_COMPILER ${QB_CROSS_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${QB_CROSS_TRIPLET}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${QB_CROSS_TRIPLET})

# Host tools (python3, dbus-daemon) are found on the host; headers and libraries only in
# the multiarch directories plus the arch-independent /usr/include and /usr/share.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)

# pkg-config must see only the armhf .pc files and the arch-independent ones (nlohmann_json)
set(ENV{PKG_CONFIG_LIBDIR} "/usr/lib/${QB_CROSS_TRIPLET}/pkgconfig:/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "")

# Test binaries (and gtest_discover_tests at test time) run through user-mode qemu; the
# armhf loader and libc come from the multiarch packages, so no -L prefix is needed.
find_program(QB_QEMU_ARM NAMES qemu-arm-static qemu-arm)
if(QB_QEMU_ARM)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${QB_QEMU_ARM})
else()
  message(WARNING "qemu-arm-static not found: armhf tests cannot run on this host")
endif()
