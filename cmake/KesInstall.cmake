# What is installed. docs/packaging.md lists it; tests/package holds it to that.
include(CMakePackageConfigHelpers)

set(libraries kespal kesos pcaplib)
set(package ${PROJECT_SOURCE_DIR}/cmake/package)
set(made ${PROJECT_BINARY_DIR}/package)

# --- libraries and headers
foreach(library IN LISTS libraries)
  install(DIRECTORY ${library}/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")
  install(TARGETS ${library} EXPORT kes)
  if(KES_SHARED)
    install(TARGETS ${library}_shared EXPORT kes)
  endif()
endforeach()
install(FILES ${PROJECT_BINARY_DIR}/include/kes/version.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kes)

# What a program without C++ has to be linked with for the archives' sake.
set(KES_CXX_RUNTIME ${CMAKE_CXX_IMPLICIT_LINK_LIBRARIES})
list(REMOVE_ITEM KES_CXX_RUNTIME ${CMAKE_C_IMPLICIT_LINK_LIBRARIES})

# --- CMake
set(packageDir ${CMAKE_INSTALL_LIBDIR}/cmake/kes)
install(EXPORT kes NAMESPACE kes:: DESTINATION ${packageDir})
configure_package_config_file(${package}/kes-config.cmake.in ${made}/kes-config.cmake
  INSTALL_DESTINATION ${packageDir})
configure_file(${package}/kes-config-version.cmake.in ${made}/kes-config-version.cmake @ONLY)
install(FILES ${made}/kes-config.cmake ${made}/kes-config-version.cmake DESTINATION ${packageDir})

# --- pkg-config: NAME links the shared library, NAME-static the archive. The files find their prefix themselves,
# as an installation may be moved.
file(RELATIVE_PATH KES_PC_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
string(REGEX REPLACE "/$" "" KES_PC_PREFIX ${KES_PC_PREFIX})
list(TRANSFORM KES_CXX_RUNTIME PREPEND -l OUTPUT_VARIABLE private)
if(APPLE)
  list(APPEND private -framework Foundation -framework CoreFoundation -lobjc)
else()
  list(APPEND private -pthread -ldl)
endif()
list(JOIN private " " KES_PC_PRIVATE)
set(about_kespal "C++20 platform library: errors, threads, processes, signals, files")
set(about_kesos "Flat C interface to the operating system")
set(about_pcaplib "Capture files that can be read while they grow")
set(used_by_kespal)
set(used_by_kesos kespal)
set(used_by_pcaplib kespal)
foreach(KES_PC_NAME IN LISTS libraries)
  set(KES_PC_ABOUT ${about_${KES_PC_NAME}})
  set(KES_PC_USES ${used_by_${KES_PC_NAME}})
  list(TRANSFORM KES_PC_USES APPEND -static OUTPUT_VARIABLE KES_PC_USES_STATIC)
  set(kinds -static)
  if(KES_SHARED)
    list(APPEND kinds "")
  else()
    configure_file(${package}/library-static.pc.in ${made}/${KES_PC_NAME}.pc @ONLY)
    install(FILES ${made}/${KES_PC_NAME}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
  endif()
  foreach(kind IN LISTS kinds)
    configure_file(${package}/library${kind}.pc.in ${made}/${KES_PC_NAME}${kind}.pc @ONLY)
    install(FILES ${made}/${KES_PC_NAME}${kind}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
  endforeach()
endforeach()

# --- programs, with their manual pages and completions: kes_install_program(NAME PAGE [option of install()...])
function(kes_install_program name page)
  string(REGEX REPLACE "^.*\\." "" section ${page})
  set(completions ${PROJECT_SOURCE_DIR}/packaging/completions)
  install(TARGETS ${name} ${ARGN})
  install(FILES ${PROJECT_SOURCE_DIR}/docs/man/${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section} ${ARGN})
  install(FILES ${completions}/bash/${name} DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions ${ARGN})
  install(FILES ${completions}/zsh/_${name} DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/site-functions ${ARGN})
  install(FILES ${completions}/fish/${name}.fish DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d ${ARGN})
endfunction()

if(KES_BUILD_TOOL)
  kes_install_program(kestrace kestrace.1)
endif()
# The stand-in is installed for who asks for it by name, as the Debian package of it does, and for nobody else.
if(TARGET kesdriver)
  kes_install_program(kesdriver kesdriver.8 COMPONENT standin EXCLUDE_FROM_ALL)
endif()

# --- documents and examples
file(GLOB documents CONFIGURE_DEPENDS docs/*.md)
list(FILTER documents EXCLUDE REGEX "/(release|building-on-a-mac)\\.md$")
install(FILES README.md CHANGELOG.md ${documents} DESTINATION ${CMAKE_INSTALL_DOCDIR})
file(GLOB examples CONFIGURE_DEPENDS examples/*.c examples/*.cpp)
install(FILES ${examples} DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)
install(FILES packaging/examples/CMakeLists.txt DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)
