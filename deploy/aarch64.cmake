# Cross build for the arm64 board: Debian's aarch64 cross compiler against
# the root file system that deploy/arm64-root makes. Executables built here
# run on this machine under qemu-aarch64 with the same root.
#
#   cmake -S . -B build-arm64 -DCMAKE_TOOLCHAIN_FILE=deploy/aarch64.cmake -DVS_ARM64_ROOT=DIR
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

if(NOT VS_ARM64_ROOT)
  message(FATAL_ERROR "Set VS_ARM64_ROOT to the arm64 root file system (deploy/arm64-root makes one)")
endif()
# try_compile projects read this file again and need the root too.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES VS_ARM64_ROOT)

set(CMAKE_SYSROOT ${VS_ARM64_ROOT})
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

# Libraries, headers and package files come from the root only.
set(CMAKE_FIND_ROOT_PATH ${VS_ARM64_ROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${VS_ARM64_ROOT})
set(ENV{PKG_CONFIG_LIBDIR}
    "${VS_ARM64_ROOT}/usr/lib/aarch64-linux-gnu/pkgconfig:${VS_ARM64_ROOT}/usr/share/pkgconfig")

# The libraries' own dependencies are found in the root at link time too.
foreach(dir lib/aarch64-linux-gnu usr/lib/aarch64-linux-gnu)
  string(APPEND CMAKE_EXE_LINKER_FLAGS_INIT " -Wl,-rpath-link,${VS_ARM64_ROOT}/${dir}")
  string(APPEND CMAKE_SHARED_LINKER_FLAGS_INIT " -Wl,-rpath-link,${VS_ARM64_ROOT}/${dir}")
endforeach()

# Test discovery and CTest run the executables under user-mode emulation.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64;-L;${VS_ARM64_ROOT})
