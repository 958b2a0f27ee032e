# Cross build for Windows x64 with mingw-w64 (posix threads), static runtime:
# the toolchain the release archive ships to module writers, with packages
# from the sysroot only and everything linked static.
include(${CMAKE_CURRENT_LIST_DIR}/release/mingw-w64-x86_64.cmake)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# Without -static the exe needs the toolchain's DLLs beside it and Wine ends it with code 53.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "-static")
