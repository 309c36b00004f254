# Cross build for ARMv7 boards (Debian armhf) with Debian's arm-linux-gnueabihf
# toolchain. The libraries come from a folder of unpacked armhf packages,
# ZEL_ARMHF_SYSROOT (scripts/test-armhf.sh makes it); the C and C++ runtime
# from the toolchain's own /usr/arm-linux-gnueabihf. Programs built here run
# on the build machine under qemu-arm user-mode emulation.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
# GCC notes on every std::map or std::span argument that their passing
# changed in GCC 7.1; everything here is built by one compiler.
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")

set(ZEL_ARMHF_SYSROOT "" CACHE PATH "Folder of unpacked armhf packages")
if(NOT ZEL_ARMHF_SYSROOT)
  message(FATAL_ERROR "Set ZEL_ARMHF_SYSROOT to the folder of unpacked armhf packages (scripts/test-armhf.sh)")
endif()
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ZEL_ARMHF_SYSROOT)

set(CMAKE_FIND_ROOT_PATH ${ZEL_ARMHF_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_LIBDIR} "${ZEL_ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig:${ZEL_ARMHF_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${ZEL_ARMHF_SYSROOT})

# The libraries' own dependencies resolve in the folder at link time, and the
# test programs find the shared libraries there at run time.
set(zel_armhf_libdirs ${ZEL_ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf ${ZEL_ARMHF_SYSROOT}/lib/arm-linux-gnueabihf)
list(JOIN zel_armhf_libdirs ":" zel_armhf_path)
set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,-rpath-link,${zel_armhf_path} -Wl,-rpath,${zel_armhf_path}")

# qemu-arm runs the programs (test discovery, ctest); -L is where it finds the
# armhf loader and C runtime, as QEMU_LD_PREFIX would say.
find_program(ZEL_QEMU_ARM NAMES qemu-arm qemu-arm-static)
if(ZEL_QEMU_ARM)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${ZEL_QEMU_ARM} -L /usr/arm-linux-gnueabihf)
endif()
