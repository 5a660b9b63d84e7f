# How every target of this project is compiled. Foreign projects that add this one as a
# subdirectory are not affected: the flags sit on an interface library that is linked privately.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 11)
set(CMAKE_C_STANDARD_REQUIRED ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
if(PROJECT_IS_TOP_LEVEL)
  set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
endif()

set(KES_SANITIZE "" CACHE STRING "Sanitizers to build with, as -fsanitize= takes them")
option(KES_COVERAGE "Instrument for coverage" OFF)

find_package(Threads REQUIRED)

add_library(kes_compile INTERFACE)
target_compile_options(kes_compile INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion $<$<BOOL:${KES_WERROR}>:-Werror>
  # Throw sites and assertions name files below the source tree, on every machine alike.
  -ffile-prefix-map=${PROJECT_SOURCE_DIR}/=
  -fno-omit-frame-pointer)
if(KES_SANITIZE)
  target_compile_options(kes_compile INTERFACE -fsanitize=${KES_SANITIZE} -fno-sanitize-recover=all)
  target_link_options(kes_compile INTERFACE -fsanitize=${KES_SANITIZE})
endif()
if(KES_COVERAGE)
  target_compile_options(kes_compile INTERFACE --coverage -fprofile-update=atomic -fdata-sections)
  target_link_options(kes_compile INTERFACE --coverage)
endif()
if(KES_COVERAGE AND CMAKE_C_COMPILER_ID STREQUAL "GNU" AND NOT APPLE)
  # Programs share their counters with their forked children.
  add_library(kes_shared_counters OBJECT ${CMAKE_CURRENT_LIST_DIR}/coverage/SharedCounters.c)
  target_link_options(kes_shared_counters INTERFACE
    LINKER:--wrap=__gcov_exit LINKER:-T,${CMAKE_CURRENT_LIST_DIR}/coverage/counters.ld)
  target_link_libraries(kes_shared_counters INTERFACE ${CMAKE_DL_LIBS})
endif()
