# Cross-compiles for a Debian root of another architecture with the distribution's cross compiler.
# ORVEX_TARGET_ROOT is the root, ORVEX_TARGET_TRIPLET the architecture, e.g. arm-linux-gnueabihf.
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ORVEX_TARGET_ROOT ORVEX_TARGET_TRIPLET)
string(REGEX MATCH "^[^-]+" CMAKE_SYSTEM_PROCESSOR "${ORVEX_TARGET_TRIPLET}")
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${ORVEX_TARGET_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${ORVEX_TARGET_TRIPLET}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${ORVEX_TARGET_TRIPLET})
set(CMAKE_SYSROOT ${ORVEX_TARGET_ROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${ORVEX_TARGET_ROOT})
set(ENV{PKG_CONFIG_LIBDIR}
    ${ORVEX_TARGET_ROOT}/usr/lib/${ORVEX_TARGET_TRIPLET}/pkgconfig:${ORVEX_TARGET_ROOT}/usr/share/pkgconfig)
# The programs run in the target's root only: a build asks none of them for its tests.
set(CMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE PRE_TEST)
# GCC 12 takes operator+ of a literal and a temporary string for a copy that overlaps (its bug
# 105651), where it inlines as much as on some of these architectures.
set(CMAKE_CXX_FLAGS_INIT -Wno-restrict)
