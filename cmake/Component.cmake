# component(NAME PLAIN ... WINDOWS ... TESTS ... NATIVE_TESTS ... WINDOWS_TESTS ... ALONE ...
#   LINK ... WINDOWS_LINK ... TEST_LINK ... NATIVE_TEST_LINK ... WINDOWS_TEST_LINK ...)
#
# One folder of src/ as one static library, quillmon_NAME, and its unit tests as one program,
# NAME_tests. PLAIN sources include no Windows header and are compiled for Windows and natively;
# WINDOWS sources for Windows only. Likewise the tests: TESTS run in both builds.
# NATIVE_TESTS are proved natively, under the sanitizers, and not again on Windows: what they test
# only moves bytes, without files, code pages, line ends, floating point, or integers of type long.
# LINK names the components below and libraries; WINDOWS_LINK libraries that only Windows has;
# TEST_LINK and its like what the tests need beyond (test_part).
# Every test program gets tests/support (the recorded trace among it).
function(component name)
  set(lists PLAIN WINDOWS TESTS NATIVE_TESTS WINDOWS_TESTS ALONE LINK WINDOWS_LINK TEST_LINK
    NATIVE_TEST_LINK WINDOWS_TEST_LINK)
  cmake_parse_arguments(COMPONENT "" "" "${lists}" ${ARGN})
  set(sources ${COMPONENT_PLAIN})
  if(WIN32)
    list(APPEND sources ${COMPONENT_WINDOWS})
    list(APPEND COMPONENT_LINK ${COMPONENT_WINDOWS_LINK})
  endif()
  if(sources)
    add_library(quillmon_${name} STATIC ${sources})
    set(scope PUBLIC)
    target_link_libraries(quillmon_${name} PRIVATE quillmon_flags)
  else()
    add_library(quillmon_${name} INTERFACE)
    set(scope INTERFACE)
  endif()
  target_include_directories(quillmon_${name} ${scope} ${PROJECT_SOURCE_DIR}/src)
  target_link_libraries(quillmon_${name} ${scope} ${COMPONENT_LINK})
  test_program(${name} TESTS ${COMPONENT_TESTS} NATIVE_TESTS ${COMPONENT_NATIVE_TESTS}
    WINDOWS_TESTS ${COMPONENT_WINDOWS_TESTS} ALONE ${COMPONENT_ALONE}
    LINK test_support quillmon_${name} ${COMPONENT_TEST_LINK}
    NATIVE_LINK ${COMPONENT_NATIVE_TEST_LINK} WINDOWS_LINK ${COMPONENT_WINDOWS_TEST_LINK})
endfunction()

# test_program(NAME TESTS ... NATIVE_TESTS ... WINDOWS_TESTS ... ALONE ...
#   LINK ... NATIVE_LINK ... WINDOWS_LINK ...)
#
# The program NAME_tests and one ctest test, NAME, that runs its cases in one process. ALONE are
# cases that need a process which nothing has happened in, or leave it changed for good: each is a
# ctest test of its own, NAME.CASE. scripts/test counts the cases by the reports that they write.
function(test_program name)
  cmake_parse_arguments(TEST "" ""
    "TESTS;NATIVE_TESTS;WINDOWS_TESTS;ALONE;LINK;NATIVE_LINK;WINDOWS_LINK" ${ARGN})
  set(build NATIVE)
  if(WIN32)
    set(build WINDOWS)
  endif()
  set(tests ${TEST_TESTS} ${TEST_${build}_TESTS})
  if(NOT QUILLMON_TESTS OR NOT tests)
    return()
  endif()
  add_executable(${name}_tests ${tests})
  target_link_libraries(${name}_tests PRIVATE ${TEST_LINK} ${TEST_${build}_LINK} quillmon_flags)
  as_test_code(${name}_tests)
  if(TEST_ALONE)
    list(JOIN TEST_ALONE : alone)
    set(others --gtest_filter=-${alone})
  endif()
  gtest_run(${name} ${name}_tests ${others})
  foreach(case ${TEST_ALONE})
    gtest_run(${name}.${case} ${name}_tests --gtest_filter=${case})
  endforeach()
endfunction()

function(gtest_run name)
  add_test(NAME ${name} COMMAND ${ARGN} --gtest_brief=1 --gtest_output=xml:${name}.report.xml)
  set_tests_properties(${name} PROPERTIES TIMEOUT 300)
endfunction()

# test_part(NAME SOURCE): a source of tests that several programs share, or that replaces a part of
# the product. Whatever links NAME compiles it, and so has it before the libraries' own.
function(test_part name source)
  add_library(${name} INTERFACE)
  target_sources(${name} INTERFACE ${CMAKE_CURRENT_SOURCE_DIR}/${source})
endfunction()

# windows_program(NAME SOURCES ... LINK ...): a program that runs beside the product in tests and
# benchmarks; Windows only.
function(windows_program name)
  cmake_parse_arguments(PROGRAM "" "" LINK ${ARGN})
  if(WIN32)
    add_executable(${name} ${PROGRAM_UNPARSED_ARGUMENTS})
    target_link_libraries(${name} PRIVATE ${PROGRAM_LINK} quillmon_flags)
  endif()
endfunction()

# as_test_code(PROGRAM): how a program of test cases is compiled: built once and run once, so not
# optimised, and with the test framework's headers precompiled.
function(as_test_code program)
  target_link_libraries(${program} PRIVATE test_framework)
  if(NOT MSVC) # which wants the same definitions in every program that shares a precompiled header
    target_compile_options(${program} PRIVATE -O0)
    target_precompile_headers(${program} REUSE_FROM test_framework)
  endif()
endfunction()
