# room(NAME PLAIN ... WINDOWS ... TESTS ... WINDOWS_TESTS ... LINK ...)
#
# One folder of src/ as one static library, quillmon_NAME, and its unit tests as one program,
# NAME_tests. PLAIN sources include no Windows header and are compiled for Windows and natively;
# WINDOWS sources for Windows only. Likewise the tests: TESTS run in both builds.
# Every test program gets tests/support (the recorded trace among it).
function(room name)
  cmake_parse_arguments(ROOM "" "" "PLAIN;WINDOWS;TESTS;WINDOWS_TESTS;LINK" ${ARGN})
  set(sources ${ROOM_PLAIN})
  set(tests ${ROOM_TESTS})
  if(WIN32)
    list(APPEND sources ${ROOM_WINDOWS})
    list(APPEND tests ${ROOM_WINDOWS_TESTS})
  endif()
  if(sources)
    add_library(quillmon_${name} STATIC ${sources})
    target_link_libraries(quillmon_${name} PUBLIC ${ROOM_LINK} PRIVATE quillmon_flags)
  else()
    add_library(quillmon_${name} INTERFACE)
    target_link_libraries(quillmon_${name} INTERFACE ${ROOM_LINK})
  endif()
  if(QUILLMON_TESTS AND tests)
    add_executable(${name}_tests ${tests})
    target_link_libraries(${name}_tests PRIVATE
      test_support quillmon_${name} quillmon_flags gmock gtest)
    if(NOT MSVC)
      target_compile_options(${name}_tests PRIVATE -O0) # built once, run once
    endif()
    # The first program of a Wine prefix takes longer to list its tests than the default allows.
    gtest_discover_tests(${name}_tests TEST_PREFIX ${name}. DISCOVERY_MODE PRE_TEST
      DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300)
  endif()
endfunction()
