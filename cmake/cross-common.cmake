# What the ARM toolchain files share: Debian's cross compilers, its multiarch
# libraries, and qemu-user to run what was built.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${SONDERLARK_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${SONDERLARK_TRIPLE}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${SONDERLARK_TRIPLE})
set(CMAKE_FIND_ROOT_PATH /usr/${SONDERLARK_TRIPLE} /usr)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
if(CMAKE_SYSTEM_PROCESSOR STREQUAL "aarch64")
  set(SONDERLARK_QEMU qemu-aarch64-static)
else()
  set(SONDERLARK_QEMU qemu-arm-static)
endif()
# The target's C and C++ runtimes are installed as Debian multiarch packages
# (libc6:ARCH, libstdc++6:ARCH), with the loader where the binaries look for
# it, so qemu runs them without -L; with -L, qemu 7.2 hangs in fork().
set(CMAKE_CROSSCOMPILING_EMULATOR ${SONDERLARK_QEMU})
# The terminal library: its headers in /usr/include are the same for every
# architecture; the target's runtime package (libncurses6:ARCH) is enough to
# link against, without its -dev package.
set(CURSES_NCURSES_LIBRARY /usr/lib/${SONDERLARK_TRIPLE}/libncurses.so.6 CACHE FILEPATH "")
set(CURSES_EXTRA_LIBRARY /usr/lib/${SONDERLARK_TRIPLE}/libtinfo.so.6 CACHE FILEPATH "")
set(CURSES_INCLUDE_PATH /usr/include CACHE PATH "")
# pkg-config answers for the target only: a library found for this machine
# (libpipewire for sonderlark-mic) must not be linked into an ARM build.
set(ENV{PKG_CONFIG_LIBDIR} "/usr/lib/${SONDERLARK_TRIPLE}/pkgconfig:/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")
