# A Mac's compiler is clang. kes_compile_by_clang(RESULT source...): objects of Objective-C sources, made by clang for
# the Objective-C library that is here, whatever compiles the rest; KES_NO_OBJECTIVE_CLANG says why not.
#
# Over this library clang gives each function of Objective-C++ a handler routine that knows no handlers of C++, and
# nothing would be caught there. On a Mac it looks whether a file has an @catch at all, and gives a file without one
# the routine of C++, as g++ does anywhere. No .mm file of this project has one, so here its name is changed
# afterwards: what is compiled, and what catches, is then the same as on a Mac. The files in C stay as they are.
find_program(KES_OBJECTIVE_CLANG NAMES clang-19 clang-16 clang)
set(KES_NO_OBJECTIVE_CLANG)
if(NOT KES_OBJECTIVE_CLANG OR NOT CMAKE_OBJCOPY)
  set(KES_NO_OBJECTIVE_CLANG "clang is not installed")
endif()

# The library's own headers lie among those of gcc, whose others are not for clang.
execute_process(COMMAND ${CMAKE_C_COMPILER} -print-file-name=include
  OUTPUT_VARIABLE objectiveHeaders OUTPUT_STRIP_TRAILING_WHITESPACE)

set(handlers __gnu_objc_personality_v0=__gxx_personality_v0
  DW.ref.__gnu_objc_personality_v0=DW.ref.__gxx_personality_v0)
list(TRANSFORM handlers PREPEND --redefine-sym= OUTPUT_VARIABLE changeHandlers)

function(kes_compile_by_clang result)
  set(objects)
  set(folders $<TARGET_PROPERTY:kespal_macos_halves,INCLUDE_DIRECTORIES>)
  set(definitions $<TARGET_PROPERTY:kes_gnustep,INTERFACE_COMPILE_DEFINITIONS>)
  foreach(source IN LISTS ARGN)
    get_filename_component(source ${source} ABSOLUTE)
    get_filename_component(name ${source} NAME)
    set(object ${CMAKE_CURRENT_BINARY_DIR}/clang/${name}.o)
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${source})
    if(name MATCHES "\\.mm$")
      file(STRINGS ${source} handler REGEX "@catch")
      if(handler)
        message(FATAL_ERROR "${name} has an @catch, which belongs into a file in C: kespal/src/os/darwin/ObjcGuard.m")
      endif()
      set(language --driver-mode=g++ -std=c++20)
      set(finish COMMAND ${CMAKE_OBJCOPY} ${changeHandlers} ${object})
    else()
      set(language -std=c11)
      set(finish)
    endif()
    add_custom_command(OUTPUT ${object}
      COMMAND ${KES_OBJECTIVE_CLANG} ${language} -fobjc-runtime=gcc ${KES_OBJECTIVE_C_FLAGS}
        -O2 -fno-omit-frame-pointer -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror
        "-I$<JOIN:${folders},;-I>" -I${PROJECT_SOURCE_DIR}/tests "-D$<JOIN:${definitions},;-D>"
        -isystem ${gnustepFolder} -idirafter ${objectiveHeaders} -MD -MF ${object}.d -c ${source} -o ${object}
      ${finish}
      DEPENDS ${source} DEPFILE ${object}.d COMMAND_EXPAND_LISTS VERBATIM)
    list(APPEND objects ${object})
  endforeach()
  file(MAKE_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/clang)
  set(${result} ${objects} PARENT_SCOPE)
endfunction()
