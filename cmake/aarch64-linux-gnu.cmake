# Cross build for 64-bit ARM (Raspberry Pi 4/5 with a 64-bit OS, Jetson).
#   cmake -S . -B build-arm64 -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake
# Tests run under qemu-user (scripts/install-deps arm64 installs it).
set(SONDERLARK_TRIPLE aarch64-linux-gnu)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/cross-common.cmake)
