# GNUstep in the place of Foundation: the target kes_gnustep, and KES_HAVE_GNUSTEP to say whether there is one,
# or else KES_NO_GNUSTEP to say why not.
include(CheckSourceCompiles)

set(KES_OBJECTIVE_C_FLAGS -fobjc-exceptions -fexceptions -fconstant-string-class=NSConstantString)
set(gnustepDefinitions GNUSTEP GNUSTEP_BASE_LIBRARY=1 GNU_RUNTIME=1 _NATIVE_OBJC_EXCEPTIONS)
set(gnustepFolder /usr/include/GNUstep)

set(KES_HAVE_GNUSTEP OFF)
if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  set(KES_NO_GNUSTEP "g++ is needed: over this Objective-C library the C++ handlers of clang catch nothing")
elseif(KES_SANITIZE)
  set(KES_NO_GNUSTEP "not under a sanitizer: the Objective-C library leaks what it knows of its classes")
else()
  set(KES_NO_GNUSTEP "gobjc++ and libgnustep-base-dev are not installed")
  if(NOT KES_GNUSTEP_COMPILES)
    unset(KES_GNUSTEP_COMPILES CACHE)  # it may have been installed since
  endif()
  list(JOIN KES_OBJECTIVE_C_FLAGS " " CMAKE_REQUIRED_FLAGS)
  list(TRANSFORM gnustepDefinitions PREPEND -D OUTPUT_VARIABLE CMAKE_REQUIRED_DEFINITIONS)
  set(CMAKE_REQUIRED_INCLUDES ${gnustepFolder})
  set(CMAKE_REQUIRED_LIBRARIES gnustep-base objc)
  check_source_compiles(CXX "#import <Foundation/Foundation.h>\nint main() { NSLog(@\"\"); }" KES_GNUSTEP_COMPILES
    SRC_EXT mm)
  set(KES_HAVE_GNUSTEP ${KES_GNUSTEP_COMPILES})
endif()

if(KES_HAVE_GNUSTEP)
  add_library(kes_gnustep INTERFACE)
  target_include_directories(kes_gnustep SYSTEM INTERFACE ${gnustepFolder})
  target_compile_definitions(kes_gnustep INTERFACE ${gnustepDefinitions})
  target_link_libraries(kes_gnustep INTERFACE gnustep-base objc)
endif()
