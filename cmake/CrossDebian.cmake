# Toolchain for a cross build on Debian: the cross compiler TRIPLET-g++ with
# its own C and C++ runtimes, the other libraries (libxml2, OpenSSL,
# GoogleTest) from the Debian packages of that architecture unpacked into
# KIVREG_CROSS_SYSROOT, and qemu-user to run what was built (tests and
# gtest's test discovery). scripts/cross-test.sh makes the sysroot:
#   cmake -DCMAKE_TOOLCHAIN_FILE=cmake/CrossDebian.cmake \
#         -DKIVREG_CROSS_TRIPLET=s390x-linux-gnu -DKIVREG_CROSS_SYSROOT=DIR
if(NOT KIVREG_CROSS_TRIPLET OR NOT KIVREG_CROSS_SYSROOT)
  message(FATAL_ERROR "Set KIVREG_CROSS_TRIPLET (e.g. aarch64-linux-gnu) and KIVREG_CROSS_SYSROOT")
endif()
# try_compile reads this file again and must see them too.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES KIVREG_CROSS_TRIPLET KIVREG_CROSS_SYSROOT)

set(triplet ${KIVREG_CROSS_TRIPLET})
set(sysroot ${KIVREG_CROSS_SYSROOT})
string(REGEX MATCH "^[^-]+" KIVREG_CROSS_CPU "${triplet}")
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ${KIVREG_CROSS_CPU})
set(CMAKE_C_COMPILER ${triplet}-gcc)
set(CMAKE_CXX_COMPILER ${triplet}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${triplet})
# The sysroot holds the architecture's C library and loader too, so qemu
# finds everything a program loads under it.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-${KIVREG_CROSS_CPU}-static -L ${sysroot})

# Libraries, headers and CMake packages from the sysroot only; programs
# (python3, openssl, strace) are the build host's own.
set(CMAKE_FIND_ROOT_PATH ${sysroot})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_LIBDIR} ${sysroot}/usr/lib/${triplet}/pkgconfig:${sysroot}/usr/share/pkgconfig)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${sysroot})
# OpenSSL's configuration header lives in the multiarch include directory;
# the libraries' own dependencies (ICU, liblzma, zlib) are found at link time.
set(CMAKE_C_FLAGS_INIT "-isystem ${sysroot}/usr/include/${triplet}")
set(CMAKE_CXX_FLAGS_INIT "-isystem ${sysroot}/usr/include/${triplet}")
set(link_dirs "-Wl,-rpath-link,${sysroot}/usr/lib/${triplet}:${sysroot}/lib/${triplet}")
set(CMAKE_EXE_LINKER_FLAGS_INIT ${link_dirs})
set(CMAKE_SHARED_LINKER_FLAGS_INIT ${link_dirs})
