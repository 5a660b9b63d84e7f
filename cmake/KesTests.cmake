# kes_test(NAME [THREADED] SOURCES file... [LIBRARIES target...] [LOCK resource...] [TIMEOUT seconds])
# One test program; each of its tests runs in a process of its own and is counted by itself. LOCK names
# machine-wide things (System V keys, ids, a fixed file) that two tests must not touch at once. THREADED
# marks those that have threads: a build for the thread sanitizer is for them alone.
include(GoogleTest)
find_package(GTest REQUIRED)

option(KES_THREADED_TESTS_ONLY "Build and run only the tests that have threads" OFF)

# Tests spend their time in the libraries, and compilers spend theirs in optimising tests.
set(KES_TEST_OPTIONS -O0)

function(kes_test name)
  cmake_parse_arguments(arg "THREADED" "TIMEOUT" "SOURCES;LIBRARIES;LOCK" ${ARGN})
  kes_program(${name} ${arg_SOURCES})
  target_link_libraries(${name} PRIVATE ${arg_LIBRARIES} kes_test_support)
  target_compile_options(${name} PRIVATE ${KES_TEST_OPTIONS})
  target_precompile_headers(${name} REUSE_FROM kes_test_support)
  if(KES_THREADED_TESTS_ONLY AND NOT arg_THREADED)
    set_target_properties(${name} PROPERTIES EXCLUDE_FROM_ALL ON)
    return()
  endif()
  if(NOT arg_TIMEOUT)
    set(arg_TIMEOUT 300)
  endif()
  set(properties TIMEOUT ${arg_TIMEOUT})
  if(arg_LOCK)
    list(APPEND properties RESOURCE_LOCK "${arg_LOCK}")
  endif()
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 120 PROPERTIES ${properties})
endfunction()
