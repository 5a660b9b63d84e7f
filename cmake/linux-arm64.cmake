# Cross build for Linux on 64-bit ARM: Debian's compiler, and Debian's libraries for that processor in a folder of
# their own. The preset linux-arm64 names this file; scripts/arm64 installs both, and runs what is built.
if(DEFINED ENV{KES_ARM64_CACHE})
  set(cache $ENV{KES_ARM64_CACHE})
elseif(DEFINED ENV{XDG_CACHE_HOME})
  set(cache $ENV{XDG_CACHE_HOME}/kes-arm64)
else()
  set(cache $ENV{HOME}/.cache/kes-arm64)
endif()
set(KES_ARM64_LIBRARIES ${cache}/libraries CACHE PATH "Debian's libraries for arm64, as scripts/arm64 unpacks them")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES KES_ARM64_LIBRARIES)
if(NOT EXISTS ${KES_ARM64_LIBRARIES})
  message(FATAL_ERROR "There is no ${KES_ARM64_LIBRARIES}: scripts/arm64 makes it.")
endif()

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_SYSROOT ${KES_ARM64_LIBRARIES})

set(triplet aarch64-linux-gnu)
set(CMAKE_LIBRARY_ARCHITECTURE ${triplet})
set(CMAKE_C_COMPILER ${triplet}-gcc)
set(CMAKE_CXX_COMPILER ${triplet}-g++)

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
