# Cross build for 32-bit ARM with hardware floating point (32-bit Raspberry Pi OS).
#   cmake -S . -B build-armhf -DCMAKE_TOOLCHAIN_FILE=cmake/arm-linux-gnueabihf.cmake
set(SONDERLARK_TRIPLE arm-linux-gnueabihf)
set(CMAKE_SYSTEM_PROCESSOR arm)
include(${CMAKE_CURRENT_LIST_DIR}/cross-common.cmake)
# off_t, time_t and long are 32 bits here: without these a WAV of 2 GiB or
# more cannot be opened and timestamps end in 2038.
add_compile_definitions(_FILE_OFFSET_BITS=64 _TIME_BITS=64)
# GCC notes that std::span arguments are passed differently than before GCC 7.1;
# everything here is built by one compiler.
add_compile_options(-Wno-psabi)
