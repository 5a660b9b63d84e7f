# What is different about tests of a build for another processor: scripts/arm64 runs them under an emulator.

# The system has GoogleTest for its own processor only.
set(KES_GTEST_SOURCE /usr/src/googletest CACHE PATH "Sources of GoogleTest")
set(INSTALL_GTEST OFF)
add_subdirectory(${KES_GTEST_SOURCE} googletest EXCLUDE_FROM_ALL SYSTEM)

# A build runs nothing: the tests are asked for their names when they are run.
set(CMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE PRE_TEST)

# Tests of programs that start under load take minutes here, and many on a machine that has other work as well.
set(KES_TESTS_SLOWDOWN 4)

# What the emulator cannot carry: lines of PATTERN, blanks, reason.
set(cannot ${PROJECT_SOURCE_DIR}/tests/emulated/cannot.txt)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${cannot})
file(STRINGS ${cannot} KES_TESTS_WITHOUT REGEX "^[^#]")
list(TRANSFORM KES_TESTS_WITHOUT REPLACE " .*" "")
