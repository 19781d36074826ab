# Toolchain for ZQ_CROSS, a Debian architecture other than this machine's: i386, arm64 or s390x. Uses
# Debian's cross compiler, and packages of that architecture unpacked by script/portability.
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ZQ_CROSS)

set(machine_i386 i686)
set(machine_arm64 aarch64)
set(machine_s390x s390x)
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ${machine_${ZQ_CROSS}})
set(CMAKE_C_COMPILER ${CMAKE_SYSTEM_PROCESSOR}-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER ${CMAKE_SYSTEM_PROCESSOR}-linux-gnu-g++)

cmake_path(SET CMAKE_SYSROOT NORMALIZE ${CMAKE_CURRENT_LIST_DIR}/../build/sysroot/${ZQ_CROSS})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
file(GLOB libraries ${CMAKE_SYSROOT}/usr/lib/*-linux-gnu)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${CMAKE_SYSROOT})
set(ENV{PKG_CONFIG_LIBDIR} ${libraries}/pkgconfig)

# Loader and libraries come from the sysroot too, and nothing else does when the programs run.
file(GLOB loader ${CMAKE_SYSROOT}/lib/ld*.so.[12])
cmake_path(GET libraries FILENAME multiarch)
set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,--dynamic-linker=${loader},--disable-new-dtags,\
-rpath,${libraries}:${CMAKE_SYSROOT}/lib/${multiarch}")

# An x86-64 kernel runs programs for i386 itself.
if(NOT (ZQ_CROSS STREQUAL "i386" AND CMAKE_HOST_SYSTEM_PROCESSOR STREQUAL "x86_64"))
  set(emulator_i386 i386)
  set(emulator_arm64 aarch64)
  set(emulator_s390x s390x)
  set(CMAKE_CROSSCOMPILING_EMULATOR qemu-${emulator_${ZQ_CROSS}}-static)
endif()
