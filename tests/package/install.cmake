# Installs a BUILD into a fresh PREFIX.
file(REMOVE_RECURSE ${PREFIX})
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD} --prefix ${PREFIX}
  OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
