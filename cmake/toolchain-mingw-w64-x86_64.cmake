# Cross-compiling for 64-bit Windows with Debian's mingw-w64.
#
# The -posix compiler variants are the ones whose C++ runtime has std::mutex
# and std::thread (through winpthreads); the -win32 variants lack them.
#
#   cmake -S . -B build/windows -G Ninja \
#         -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-mingw-w64-x86_64.cmake
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(KAVREL_MINGW_TRIPLE x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${KAVREL_MINGW_TRIPLE}-gcc-posix)
set(CMAKE_CXX_COMPILER ${KAVREL_MINGW_TRIPLE}-g++-posix)
set(CMAKE_RC_COMPILER ${KAVREL_MINGW_TRIPLE}-windres)

# Headers and libraries come from the cross sysroot only; programs (code
# generators, scripts) from the build machine.
set(CMAKE_FIND_ROOT_PATH /usr/${KAVREL_MINGW_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
