# Cross-compiles for 64-bit Windows with Debian's mingw-w64 (g++-mingw-w64-x86-64-posix; the
# posix flavour, since the program uses std::thread and std::mutex), for example:
#   cmake -S tests/win -B build-win -DCMAKE_TOOLCHAIN_FILE=$PWD/cmake/toolchain-mingw-w64.cmake
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(BRINDLE_MINGW_TRIPLET x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${BRINDLE_MINGW_TRIPLET}-gcc-posix)
set(CMAKE_CXX_COMPILER ${BRINDLE_MINGW_TRIPLET}-g++-posix)
set(CMAKE_RC_COMPILER ${BRINDLE_MINGW_TRIPLET}-windres)

# Libraries and headers come from the Windows sysroot only; build tools from the host.
set(CMAKE_FIND_ROOT_PATH /usr/${BRINDLE_MINGW_TRIPLET})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
