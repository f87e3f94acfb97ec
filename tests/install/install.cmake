# The installed library, used from outside. Not under sanitizers: a consumer would have to be built with them too.
if(NOT ZELLIVE_SANITIZE AND TARGET zellive_tool)
  add_test(NAME install.consumers COMMAND ${PROJECT_SOURCE_DIR}/tests/install/install.sh ${PROJECT_BINARY_DIR}
    ${CMAKE_INSTALL_LIBDIR} ${CMAKE_CXX_COMPILER} ${CMAKE_GENERATOR} ${CMAKE_CURRENT_BINARY_DIR}/install)
  set_tests_properties(install.consumers PROPERTIES TIMEOUT 300)
endif()
