# The second tool chain for macOS on Linux: clang and the linker of LLVM as Debian packs them, over the C headers,
# the stubs and the C++ library of the first one. It has newer warnings, and a linker that knows nothing of the
# first one's. scripts/macos builds with both; the presets macos-clang-arm64 and macos-clang-x86_64 name this file.
include(${CMAKE_CURRENT_LIST_DIR}/toolchain.cmake)
include(${CMAKE_CURRENT_LIST_DIR}/cache.cmake)

set(KES_MACOS_LLVM 19 CACHE STRING "Version of Debian's packages clang and lld")
set(CMAKE_C_COMPILER /usr/bin/clang-${KES_MACOS_LLVM})
set(CMAKE_CXX_COMPILER /usr/bin/clang++-${KES_MACOS_LLVM})
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES KES_MACOS_LLVM KES_MACOS_CXX_LIBRARIES)
foreach(lang C CXX)
  set(CMAKE_${lang}_COMPILER_TARGET ${KES_MACOS_ARCH}-apple-macos11.0)
endforeach()

# The C++ library is compiled by the first tool chain when it links something, and it tells where that lies.
if(NOT KES_MACOS_CXX_LIBRARIES)
  set(probe ${CMAKE_BINARY_DIR}/CMakeFiles/cxx-libraries)
  file(WRITE ${probe}.cpp "int main() {}\n")
  execute_process(
    COMMAND ${CMAKE_CURRENT_LIST_DIR}/bin/${KES_MACOS_ARCH}-macos-c++ -O3 -DNDEBUG -v ${probe}.cpp -o ${probe}
    OUTPUT_VARIABLE said ERROR_VARIABLE said)
  set(libraries)
  foreach(library c\\+\\+ c\\+\\+abi compiler_rt)
    string(REGEX MATCH "[^ \n\"]+/lib${library}\\.a" found "${said}")
    if(NOT found)
      message(FATAL_ERROR "The first tool chain does not tell where its C++ library is:\n${said}")
    endif()
    list(APPEND libraries ${found})
  endforeach()
  list(JOIN libraries " " libraries)
  set(KES_MACOS_CXX_LIBRARIES ${libraries} CACHE INTERNAL "The C++ library, and what else programs are linked with")
endif()

# Its headers as the first tool chain sees them, with the settings that it was built with; and, as there, no guard of
# the stack: so both make programs that import the same.
string(JOIN " " headers
  -nostdlibinc -fno-stack-protector
  "-isystem ${sdk}/include"
  "-isystem ${KES_MACOS_TOOLS}/libc/include/any-macos-any")
string(JOIN " " cxxHeaders
  -nostdinc++
  "-isystem ${KES_MACOS_TOOLS}/libcxx/include"
  "-isystem ${KES_MACOS_TOOLS}/libcxxabi/include"
  -D_LIBCPP_ABI_VERSION=1 -D_LIBCPP_ABI_NAMESPACE=__1 -D_LIBCPP_PSTL_CPU_BACKEND_SERIAL
  -D_LIBCPP_DISABLE_VISIBILITY_ANNOTATIONS -D_LIBCXXABI_DISABLE_VISIBILITY_ANNOTATIONS)
set(CMAKE_C_FLAGS_INIT "${headers}")
set(CMAKE_CXX_FLAGS_INIT "${cxxHeaders} ${headers}")

# Fixups as chains: the form that younger systems prefer, while the first tool chain makes the older one. So the loader
# of the tests shows that programs run in both.
foreach(kind EXE SHARED MODULE)
  set(CMAKE_${kind}_LINKER_FLAGS_INIT
    "-fuse-ld=lld-${KES_MACOS_LLVM} -mlinker-version=710 -Wl,-fixup_chains -nostdlib++ -F${sdk}/frameworks -L${sdk}/lib -L${KES_MACOS_TOOLS}/libc/darwin")
endforeach()
set(CMAKE_C_STANDARD_LIBRARIES "${KES_MACOS_CXX_LIBRARIES}")
set(CMAKE_CXX_STANDARD_LIBRARIES "${KES_MACOS_CXX_LIBRARIES}")
