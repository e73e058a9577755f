# Builds for 64-bit ARM: elsewhere with Debian's cross compiler, and what was built runs in an
# emulator. On such a machine nothing changes.
if(NOT CMAKE_HOST_SYSTEM_PROCESSOR STREQUAL "aarch64")
  set(CMAKE_SYSTEM_NAME Linux)
  set(CMAKE_SYSTEM_PROCESSOR aarch64)
  set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
  set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
  set(CMAKE_CROSSCOMPILING_EMULATOR /usr/bin/qemu-aarch64)
endif()
