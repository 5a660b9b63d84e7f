# kes_test(NAME [THREADED] SOURCES file... [LIBRARIES target...] [CALLS name...] [FAKES function...]
#          [LOCK resource...] [TIMEOUT seconds])
# One test program; each of its tests runs in a process of its own and is counted by itself. LOCK names
# machine-wide things (System V keys, ids, a fixed file) that two tests must not touch at once. THREADED
# marks those that have threads: a build for the thread sanitizer is for them alone. CALLS names what
# tests/support/Calls.h comes between in this program: calls of the C library or whole sections of
# tests/support/Calls.def (files, threads, ...), or all. FAKES names functions of other libraries for which the
# program defines a __wrap_NAME of its own.
include(GoogleTest)
if(CMAKE_CROSSCOMPILING)
  include(${PROJECT_SOURCE_DIR}/tests/emulated/Emulated.cmake)
else()
  find_package(GTest REQUIRED)
endif()

option(KES_THREADED_TESTS_ONLY "Build and run only the tests that have threads" OFF)

# Tests spend their time in the libraries, and compilers spend theirs in optimising tests.
set(KES_TEST_OPTIONS -O0)
if(KES_SANITIZE MATCHES "undefined")
  # Two looks at each access take a quarter of that time. The products keep them, and a null is seen all the same.
  list(APPEND KES_TEST_OPTIONS -fno-sanitize=null,alignment)
endif()

# Reads the names of all calls into KES_CALLS, and those of each section into KES_CALLS_<section>.
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/tests/support/Calls.def)
file(STRINGS ${PROJECT_SOURCE_DIR}/tests/support/Calls.def lines REGEX "^(// --- |CALL\\(|VARIADIC\\()")
set(KES_CALLS)
foreach(line IN LISTS lines)
  if(line MATCHES "^// --- (.+)$")
    set(section ${CMAKE_MATCH_1})
    set(KES_CALLS_${section})
  elseif(line MATCHES "^[A-Z]+\\(([a-zA-Z0-9_]+),")
    list(APPEND KES_CALLS ${CMAKE_MATCH_1})
    list(APPEND KES_CALLS_${section} ${CMAKE_MATCH_1})
  endif()
endforeach()

# Gives a program's references to NAME as __wrap_NAME, and the definition of NAME as __real_NAME.
function(kes_wrap target)
  list(TRANSFORM ARGN PREPEND LINKER:--wrap=)
  target_link_options(${target} PRIVATE ${ARGN})
endfunction()

# Sends calls of a program to the wrappers of the tests: calls or sections, or all.
function(kes_wrap_calls target)
  foreach(name IN LISTS ARGN)
    if(name STREQUAL "all")
      set(calls ${KES_CALLS})
    elseif(DEFINED KES_CALLS_${name})
      set(calls ${KES_CALLS_${name}})
    elseif(name IN_LIST KES_CALLS)
      set(calls ${name})
    else()
      message(FATAL_ERROR "${target}: tests/support/Calls.def has no call and no section ${name}")
    endif()
    kes_wrap(${target} ${calls})
  endforeach()
endfunction()

function(kes_test name)
  cmake_parse_arguments(arg "THREADED" "TIMEOUT" "SOURCES;LIBRARIES;CALLS;FAKES;LOCK" ${ARGN})
  kes_program(${name} ${arg_SOURCES})
  target_link_libraries(${name} PRIVATE ${arg_LIBRARIES} kes_test_support)
  kes_wrap_calls(${name} ${arg_CALLS})
  kes_wrap(${name} ${arg_FAKES})
  target_compile_options(${name} PRIVATE ${KES_TEST_OPTIONS})
  target_precompile_headers(${name} REUSE_FROM kes_test_support)
  if(KES_THREADED_TESTS_ONLY AND NOT arg_THREADED)
    set_target_properties(${name} PROPERTIES EXCLUDE_FROM_ALL ON)
    return()
  endif()
  if(NOT arg_TIMEOUT)
    set(arg_TIMEOUT 900)
  endif()
  set(properties)
  if(arg_LOCK)
    set(properties RESOURCE_LOCK "${arg_LOCK}")
  endif()
  kes_discover(${name} "" "*" "" ${arg_TIMEOUT} ${properties})
endfunction()

# kes_test_again(NAME PREFIX text ENVIRONMENT variable=value [ONLY filter] [WITHOUT filter] [TIMEOUT seconds])
# Every test of a program of kes_test() once more, with this in its environment and this before its name; ONLY and
# WITHOUT leave some of them out.
function(kes_test_again name)
  cmake_parse_arguments(arg "" "PREFIX;ENVIRONMENT;ONLY;WITHOUT;TIMEOUT" "" ${ARGN})
  if(NOT arg_ONLY)
    set(arg_ONLY "*")
  endif()
  if(NOT arg_TIMEOUT)
    set(arg_TIMEOUT 900)
  endif()
  kes_discover(${name} "${arg_PREFIX}" "${arg_ONLY}" "${arg_WITHOUT}" ${arg_TIMEOUT} ENVIRONMENT ${arg_ENVIRONMENT})
endfunction()

# The tests of a program that the filter `only` names, less those of the filter `without` and those that cannot run here;
# each may take `seconds`, under an emulator longer. Their label is the program.
function(kes_discover name prefix only without seconds)
  list(APPEND without ${KES_TESTS_WITHOUT})
  list(JOIN without : without)
  if(KES_TESTS_SLOWDOWN)
    math(EXPR seconds "${seconds} * ${KES_TESTS_SLOWDOWN}")
  endif()
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT ${seconds} TEST_PREFIX "${prefix}" TEST_FILTER "${only}-${without}"
    PROPERTIES LABELS ${name} TIMEOUT ${seconds} ${ARGN})
endfunction()
