# kes_install_completions(PROGRAM): installs what the shells know of a program to where they look for it.
function(kes_install_completions program)
  set(completions ${PROJECT_SOURCE_DIR}/packaging/completions)
  install(FILES ${completions}/bash/${program} DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
  install(FILES ${completions}/zsh/_${program} DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/site-functions)
  install(FILES ${completions}/fish/${program}.fish DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d)
endfunction()
