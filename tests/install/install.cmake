# The installed library, used from outside. Not under sanitizers: a consumer would have to be built with them too.
if(ZELLIVE_SANITIZE)
  return()
endif()

set(folder ${PROJECT_SOURCE_DIR}/tests/install)
set(work ${CMAKE_CURRENT_BINARY_DIR}/install)
set(stage ${work}/stage)

add_test(NAME install.stage
  COMMAND ${CMAKE_COMMAND} -D STAGE=${stage} -D BUILD=${PROJECT_BINARY_DIR} -P ${folder}/stage.cmake)
add_test(NAME install.find_package
  COMMAND ${CMAKE_CTEST_COMMAND} --build-and-test ${folder}/consumer ${work}/consumer
    --build-generator ${CMAKE_GENERATOR} --build-options -DCMAKE_PREFIX_PATH=${stage}
    -DCMAKE_CXX_COMPILER=${CMAKE_CXX_COMPILER} --test-command ${work}/consumer/consumer)
add_test(NAME install.pkg_config
  COMMAND ${folder}/pkg_config.sh ${CMAKE_CXX_COMPILER} ${stage} ${CMAKE_INSTALL_LIBDIR} ${work}/pkg_config)
if(TARGET zellive_tool)
  add_test(NAME install.tool COMMAND ${stage}/${CMAKE_INSTALL_BINDIR}/zellive --help)
  set_tests_properties(install.tool PROPERTIES FIXTURES_REQUIRED installed_tree)
endif()
set_tests_properties(install.stage PROPERTIES FIXTURES_SETUP installed_tree)
set_tests_properties(install.find_package install.pkg_config PROPERTIES FIXTURES_REQUIRED installed_tree TIMEOUT 300)
