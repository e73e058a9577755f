# Builds for x86-64: elsewhere with Debian's cross compiler. On such a machine nothing changes.
if(NOT CMAKE_HOST_SYSTEM_PROCESSOR STREQUAL "x86_64")
  set(CMAKE_SYSTEM_NAME Linux)
  set(CMAKE_SYSTEM_PROCESSOR x86_64)
  set(CMAKE_C_COMPILER x86_64-linux-gnu-gcc)
  set(CMAKE_CXX_COMPILER x86_64-linux-gnu-g++)
endif()
