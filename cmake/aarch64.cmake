# Builds for aarch64 Linux with glibc on another machine. What is run for it meanwhile, QEMU runs: on the processor that is the
# fastest to emulate, as it does not sign its pointers.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_FIND_ROOT_PATH /usr/aarch64-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
find_program(OPTMONITORING_QEMU NAMES qemu-aarch64-static qemu-aarch64)
if(OPTMONITORING_QEMU)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${OPTMONITORING_QEMU} -cpu cortex-a72 -L ${CMAKE_FIND_ROOT_PATH})
endif()
set(OPTMONITORING_MACHINE aarch64)
