# kes_library(NAME): a library of this project, exported as kes::NAME; its public headers lie in
# include/NAME below its folder.
function(kes_library name)
  add_library(${name})
  add_library(kes::${name} ALIAS ${name})
  target_compile_features(${name} PUBLIC cxx_std_20)
  target_include_directories(${name}
    PUBLIC $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/include> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>
    PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/src)
  target_link_libraries(${name} PRIVATE $<BUILD_INTERFACE:kes_compile> $<BUILD_INTERFACE:kes_sys> PUBLIC Threads::Threads)
  if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    # Which lock guards what stands in the code, in the words of kespal/thread/Annotations.h. Not for tests,
    # which misuse locks on purpose.
    target_compile_options(${name} PRIVATE -Wthread-safety)
  endif()
endfunction()

# kes_program(NAME SOURCES...): a program of this project. It exports its symbols, or the frames
# of a backtrace would have no names.
function(kes_program name)
  add_executable(${name} ${ARGN})
  target_link_libraries(${name} PRIVATE $<BUILD_INTERFACE:kes_compile> $<BUILD_INTERFACE:kes_sys>)
  set_target_properties(${name} PROPERTIES ENABLE_EXPORTS ON)
  if(TARGET kes_shared_counters)
    target_link_libraries(${name} PRIVATE kes_shared_counters)
  endif()
endfunction()
