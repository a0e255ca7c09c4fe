# The flags of every target of ours (never of a library's): link quillmon_flags privately.
#
# Hardening, and what tests/system/test_binary.py finds of it in each program that ships:
#   stack protector, _FORTIFY_SOURCE, _GLIBCXX_ASSERTIONS   compiled in (MSVC: /GS, /sdl)
#   dynamicbase, high-entropy-va, relocations               addresses are random
#   nxcompat                                                data is not executed
#   static, system libraries only                           no DLL beside the program is loaded
#   file-prefix-map                                         no folder of the builder's inside
# MSVC only, MinGW has none of them: control flow guard, shadow stacks (/CETCOMPAT), and the loader's
# flag that has what is imported come from the system's folder.
add_library(quillmon_flags INTERFACE)

if(MSVC)
  # Off, and why: a parameter's own const is no part of a signature (4373); a condition on a template's
  # argument is constant (4127); a local name may be that of a function elsewhere (4459), as for GCC's
  # -Wshadow; what the optimiser finds unreachable is a library's template (4702).
  target_compile_options(quillmon_flags INTERFACE
    /W4 /WX /wd4373 /wd4127 /wd4459 /wd4702 /permissive- /utf-8 /Zc:__cplusplus /sdl /guard:cf)
  # Or /sdl refuses getenv and fopen, which have no buffer that could be too small.
  target_compile_definitions(quillmon_flags INTERFACE _CRT_SECURE_NO_WARNINGS)
  target_link_options(quillmon_flags INTERFACE
    /DYNAMICBASE /NXCOMPAT /HIGHENTROPYVA /guard:cf /CETCOMPAT /DEPENDENTLOADFLAG:0x800)
else()
  target_compile_options(quillmon_flags INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wcast-qual -Wnon-virtual-dtor
    -Wold-style-cast -Woverloaded-virtual -Wimplicit-fallthrough -Wextra-semi -Werror
    -fstack-protector-strong)
  target_link_options(quillmon_flags INTERFACE -fstack-protector-strong)
  if(CMAKE_CXX_COMPILER_ID MATCHES Clang)
    # A precompiled header's content, not its age, decides; a compiler cache needs that.
    target_compile_options(quillmon_flags INTERFACE "SHELL:-Xclang -fno-pch-timestamp")
  endif()
  target_compile_definitions(quillmon_flags INTERFACE _GLIBCXX_ASSERTIONS)
endif()

if(WIN32)
  target_compile_definitions(quillmon_flags INTERFACE
    _WIN32_WINNT=0x0A00 WIN32_LEAN_AND_MEAN NOMINMAX _WINSOCK_DEPRECATED_NO_WARNINGS)
  if(MINGW)
    # COM interfaces are polymorphic without a virtual destructor, by design of the platform.
    target_compile_options(quillmon_flags INTERFACE
      -Wno-non-virtual-dtor -ffile-prefix-map=${PROJECT_SOURCE_DIR}=.)
    target_compile_definitions(quillmon_flags INTERFACE $<$<CONFIG:Release>:_FORTIFY_SOURCE=2>)
    target_link_options(quillmon_flags INTERFACE
      -static -Wl,--dynamicbase,--nxcompat,--high-entropy-va)
  endif()
endif()

if(QUILLMON_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${PROJECT_SOURCE_DIR}/tests/fixed) # how ctest starts a program
endif()

if(QUILLMON_FUZZ)
  # For the fuzzer's guidance, and to tell afterwards which lines it has reached.
  add_compile_options(-fsanitize=fuzzer-no-link -fprofile-instr-generate -fcoverage-mapping)
  add_link_options(-fprofile-instr-generate)
endif()
