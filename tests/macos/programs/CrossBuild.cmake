# What a Mac has and the cross tool chain brings as source: the unwinder, and Google Test as Debian ships it.
include(${PROJECT_SOURCE_DIR}/cmake/macos/cache.cmake)
set(unwinder ${KES_MACOS_TOOLS}/libunwind)

set(sources
  ${unwinder}/src/libunwind.cpp
  ${unwinder}/src/UnwindLevel1.c
  ${unwinder}/src/UnwindLevel1-gcc-ext.c
  ${unwinder}/src/UnwindRegistersRestore.S
  ${unwinder}/src/UnwindRegistersSave.S)
add_library(kes_unwind SHARED ${sources})
set_source_files_properties(${unwinder}/src/UnwindRegistersRestore.S ${unwinder}/src/UnwindRegistersSave.S
  PROPERTIES LANGUAGE C COMPILE_OPTIONS "-x;assembler-with-cpp")
target_include_directories(kes_unwind PRIVATE ${unwinder}/include ${unwinder}/src)
target_compile_options(kes_unwind PRIVATE -w -funwind-tables $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions -fno-rtti>)

set(googletest /usr/src/googletest)
add_library(kes_googletest STATIC EXCLUDE_FROM_ALL
  ${googletest}/googletest/src/gtest-all.cc
  ${googletest}/googlemock/src/gmock-all.cc
  ${googletest}/googletest/src/gtest_main.cc)
target_include_directories(kes_googletest SYSTEM PUBLIC
  ${googletest}/googletest/include ${googletest}/googlemock/include)
target_include_directories(kes_googletest PRIVATE ${googletest}/googletest ${googletest}/googlemock)
target_compile_options(kes_googletest PRIVATE -w -O1 -fno-omit-frame-pointer)
