# 32-bit ARM Linux with hardware floating point, built by Debian's cross compiler. `./dev arm` fills the sysroot
# with the armhf packages of the libraries that stand outside the compiler's own (SQLite, libpng, zlib).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

# try_compile projects see the variable too.
set(QUORVIL_ARM_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../build/armhf-sysroot" CACHE PATH "Folder with the armhf libraries")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES QUORVIL_ARM_SYSROOT)

set(CMAKE_FIND_ROOT_PATH "${QUORVIL_ARM_SYSROOT}" /usr/arm-linux-gnueabihf)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(CMAKE_EXE_LINKER_FLAGS_INIT
    "-Wl,-rpath-link,${QUORVIL_ARM_SYSROOT}/usr/lib/arm-linux-gnueabihf -Wl,-rpath-link,${QUORVIL_ARM_SYSROOT}/lib/arm-linux-gnueabihf")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${CMAKE_EXE_LINKER_FLAGS_INIT}")

# The loader and the C library of the target stand with the cross compiler.
set(CMAKE_CROSSCOMPILING_EMULATOR
    "qemu-arm;-L;/usr/arm-linux-gnueabihf;-E;LD_LIBRARY_PATH=${QUORVIL_ARM_SYSROOT}/usr/lib/arm-linux-gnueabihf:${QUORVIL_ARM_SYSROOT}/lib/arm-linux-gnueabihf")
