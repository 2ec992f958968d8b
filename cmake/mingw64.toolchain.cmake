# Cross-compiles the product for Windows x64 with the posix-threads flavour of mingw-w64.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(ZUN_TRIPLE x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${ZUN_TRIPLE}-gcc-posix)
set(CMAKE_CXX_COMPILER ${ZUN_TRIPLE}-g++-posix)
set(CMAKE_RC_COMPILER ${ZUN_TRIPLE}-windres)

set(CMAKE_FIND_ROOT_PATH /usr/${ZUN_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)

# Every test and benchmark executable runs under Wine through this wrapper.
set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/../scripts/wine-run)
