# Cross-compiling for Windows x86-64 with Debian's MinGW-w64 (the posix thread model, for
# std::thread and std::shared_mutex). SIGNDB_WINDOWS_DEPS names the folder where
# scripts/windows.sh installed Boost, POCO and OpenSSL built for Windows.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(triple x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${triple}-gcc-posix)
set(CMAKE_CXX_COMPILER ${triple}-g++-posix)
set(CMAKE_RC_COMPILER ${triple}-windres)
set(CMAKE_OBJDUMP ${triple}-objdump)

set(SIGNDB_WINDOWS_DEPS "" CACHE PATH "Boost, POCO and OpenSSL built for Windows")
set(CMAKE_FIND_ROOT_PATH /usr/${triple} ${SIGNDB_WINDOWS_DEPS})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Tests and programs built here run under wine.
set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/../scripts/wine_run.sh)
