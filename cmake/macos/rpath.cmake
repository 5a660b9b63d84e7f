# Included by project() in a cross build; see toolchain.cmake.
foreach(kind SHARED_LIBRARY EXECUTABLE)
  foreach(lang C CXX)
    set(CMAKE_${kind}_RUNTIME_${lang}_FLAG "-Wl,-rpath,")
  endforeach()
endforeach()
