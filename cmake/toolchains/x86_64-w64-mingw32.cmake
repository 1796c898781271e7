# Cross-compiling for 64-bit Windows with MinGW-w64 (the posix thread model), running the
# programs under Wine where it is installed: cmake --preset mingw-debug.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(CMAKE_C_COMPILER x86_64-w64-mingw32-gcc-posix)
set(CMAKE_CXX_COMPILER x86_64-w64-mingw32-g++-posix)
set(CMAKE_RC_COMPILER x86_64-w64-mingw32-windres)

set(CMAKE_FIND_ROOT_PATH /usr/x86_64-w64-mingw32)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Wine runs the tests (and the build's test discovery) as if they were native.
find_program(DK_WINE NAMES wine64 wine PATHS /usr/lib/wine NO_CMAKE_FIND_ROOT_PATH)
if(DK_WINE)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${DK_WINE})
endif()

# The C++ runtime, libgcc and winpthreads are linked in, so the DLL and the programs need no
# MinGW DLL beside them: they import only the system's DLLs.
set(dk_static_runtime "-static-libgcc -static-libstdc++ -Wl,-Bstatic,--whole-archive -lwinpthread -Wl,--no-whole-archive,-Bdynamic")
set(CMAKE_EXE_LINKER_FLAGS_INIT "${dk_static_runtime}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${dk_static_runtime}")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "${dk_static_runtime}")
