# Installs what was built into an empty STAGE.
file(REMOVE_RECURSE ${STAGE})
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD} --prefix ${STAGE} COMMAND_ERROR_IS_FATAL ANY
  OUTPUT_QUIET)
