# The same cross build by another compiler: clang 14, with the headers and libraries of Debian's
# g++-mingw-w64-x86-64-posix. It is there to be warned by; what ships is built by GCC.
include(${CMAKE_CURRENT_LIST_DIR}/mingw-w64.cmake)
execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-libgcc-file-name
  OUTPUT_VARIABLE libgcc OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
cmake_path(GET libgcc PARENT_PATH gcc)

set(CMAKE_C_COMPILER clang-14)
set(CMAKE_CXX_COMPILER clang++-14)
set(CMAKE_C_COMPILER_TARGET x86_64-w64-mingw32)
set(CMAKE_CXX_COMPILER_TARGET x86_64-w64-mingw32)
# None of the folders that clang would look into by itself: the native ones are among them. GCC's
# libstdc++ keeps thread-local variables where only emulated ones are found.
set(CMAKE_C_FLAGS_INIT "-nostdlibinc -Wno-unused-command-line-argument \
-isystem /usr/x86_64-w64-mingw32/include")
set(CMAKE_CXX_FLAGS_INIT "-femulated-tls -isystem ${gcc}/include/c++ \
-isystem ${gcc}/include/c++/x86_64-w64-mingw32 ${CMAKE_C_FLAGS_INIT}")
# Where g++ looks, and what it adds by itself: libstdc++ and libgcc_eh need the threads. Some of what
# clang compiles inline is in libstdc++ as well.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-B${gcc} -L${gcc} -Wl,--allow-multiple-definition")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "${CMAKE_EXE_LINKER_FLAGS_INIT}")
set(CMAKE_CXX_STANDARD_LIBRARIES "-lstdc++ -lgcc -lgcc_eh -lpthread -luuid" CACHE STRING "")
