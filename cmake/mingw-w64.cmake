# Cross build for 64-bit Windows with Debian's g++-mingw-w64-x86-64-posix.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(CMAKE_C_COMPILER x86_64-w64-mingw32-gcc-posix)
set(CMAKE_CXX_COMPILER x86_64-w64-mingw32-g++-posix)
set(CMAKE_RC_COMPILER x86_64-w64-mingw32-windres)
# scripts/lib.sh leaves the cross-built XML library here; the benchmarks name another build of it.
set(QUILLMON_XERCES xerces CACHE STRING "The XML library to link with, a folder in build/deps")
set(CMAKE_FIND_ROOT_PATH /usr/x86_64-w64-mingw32
  ${CMAKE_CURRENT_LIST_DIR}/../build/deps/${QUILLMON_XERCES})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
