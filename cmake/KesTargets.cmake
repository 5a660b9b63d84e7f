# Whether there are shared libraries beside the archives. Instrumented ones have no use: they are for the tests,
# which link archives.
if(DEFINED BUILD_SHARED_LIBS)
  set(sharedToo ${BUILD_SHARED_LIBS})
elseif(APPLE OR KES_SANITIZE OR KES_COVERAGE)
  set(sharedToo OFF)
else()
  set(sharedToo ${PROJECT_IS_TOP_LEVEL})
endif()
option(KES_SHARED "Build the libraries as shared ones, too" ${sharedToo})

# kes_library(NAME [FLAT]): a library of this project, whose public headers lie in include/NAME below its folder;
# FLAT ones are in C. The target NAME is the archive, kes::NAME_static to others. NAME_shared is made of the same
# objects, so these are position independent. kes::NAME is the archive unless BUILD_SHARED_LIBS is on.
function(kes_library name)
  cmake_parse_arguments(arg "FLAT" "" "" ${ARGN})
  add_library(${name} STATIC)
  add_library(kes::${name}_static ALIAS ${name})
  set_target_properties(${name} PROPERTIES EXPORT_NAME ${name}_static POSITION_INDEPENDENT_CODE ON
    VISIBILITY_INLINES_HIDDEN ON)
  foreach(language C CXX OBJC OBJCXX)
    set_target_properties(${name} PROPERTIES ${language}_VISIBILITY_PRESET hidden)
  endforeach()
  if(NOT APPLE)
    # Calls within a library stay there: so they may be inlined.
    target_compile_options(${name} PRIVATE -fno-semantic-interposition)
  endif()
  target_include_directories(${name} PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/src)
  target_compile_features(${name} PRIVATE cxx_std_20)
  target_link_libraries(${name} PRIVATE $<BUILD_INTERFACE:kes_compile> $<BUILD_INTERFACE:kes_sys>)
  if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    # Which lock guards what stands in the code, in the words of kespal/thread/Annotations.h. Not for tests,
    # which misuse locks on purpose.
    target_compile_options(${name} PRIVATE -Wthread-safety)
  endif()
  if(KES_SHARED)
    kes_shared_library(${name})
    add_library(kes::${name}_shared ALIAS ${name}_shared)
  endif()
  if(KES_SHARED AND BUILD_SHARED_LIBS)
    add_library(kes::${name} ALIAS ${name}_shared)
  else()
    add_library(kes::${name} ALIAS ${name})
  endif()

  kes_library_tells(${name} FOLDERS
    $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/include> $<BUILD_INTERFACE:${PROJECT_BINARY_DIR}/include>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  if(NOT APPLE)
    # A plugin that took in an archive stays loaded, for the reasons that the shared library does.
    set(plugin $<IN_LIST:$<TARGET_PROPERTY:TYPE>,MODULE_LIBRARY$<SEMICOLON>SHARED_LIBRARY>)
    target_link_options(${name} INTERFACE $<${plugin}:LINKER:-z,nodelete>)
  endif()
  foreach(kind ${name} ${name}_shared)
    if(TARGET ${kind})
      target_link_libraries(${kind} PUBLIC Threads::Threads)
      if(NOT arg_FLAT)
        target_compile_features(${kind} INTERFACE cxx_std_20)
      endif()
    endif()
  endforeach()
endfunction()

# The shared library of an archive.
function(kes_shared_library name)
  set(shared ${name}_shared)
  add_library(${shared} SHARED $<TARGET_OBJECTS:${name}>)
  # Not beside the archive, where linkers would prefer it.
  set_target_properties(${shared} PROPERTIES OUTPUT_NAME ${name} LINKER_LANGUAGE CXX
    VERSION ${PROJECT_VERSION} SOVERSION ${KES_SOVERSION} LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/lib)
  if(APPLE)
    return()
  endif()
  # They lie side by side, and where that is must not show in them.
  set_target_properties(${shared} PROPERTIES INSTALL_RPATH "$ORIGIN" BUILD_RPATH_USE_ORIGIN ON)
  set(script ${CMAKE_CURRENT_SOURCE_DIR}/exports.map)
  set_target_properties(${shared} PROPERTIES LINK_DEPENDS ${script})
  target_link_options(${shared} PRIVATE LINKER:--version-script=${script} LINKER:-Bsymbolic-functions
    LINKER:-z,relro LINKER:-z,now LINKER:-z,noexecstack LINKER:-z,text
    # Its threads, and its handlers of forks, of ending threads and of uncaught errors, outlive whoever loaded it.
    LINKER:-z,nodelete)
  if(NOT KES_SANITIZE)
    target_link_options(${shared} PRIVATE LINKER:--no-undefined)
  endif()
endfunction()

# kes_library_uses(NAME library...): what both kinds of a library are linked with, and nobody sees. Of this project's
# own libraries each takes its kind.
function(kes_library_uses name)
  target_link_libraries(${name} PRIVATE ${ARGN})
  if(TARGET ${name}_shared)
    foreach(library IN LISTS ARGN)
      if(TARGET ${library}_shared)
        set(library ${library}_shared)
      endif()
      target_link_libraries(${name}_shared PRIVATE ${library})
    endforeach()
  endif()
endfunction()

# kes_library_tells(NAME [FOLDERS folder...] [DEFINITIONS definition...] [LINK_OPTIONS option...]): what both kinds
# of a library ask of who links them.
function(kes_library_tells name)
  cmake_parse_arguments(arg "" "" "FOLDERS;DEFINITIONS;LINK_OPTIONS" ${ARGN})
  target_include_directories(${name} PUBLIC ${arg_FOLDERS})
  foreach(kind ${name} ${name}_shared)
    if(TARGET ${kind})
      target_include_directories(${kind} INTERFACE ${arg_FOLDERS})
      target_compile_definitions(${kind} INTERFACE ${arg_DEFINITIONS})
      target_link_options(${kind} INTERFACE ${arg_LINK_OPTIONS})
    endif()
  endforeach()
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
