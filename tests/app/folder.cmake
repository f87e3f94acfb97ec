if(NOT TARGET zellive_tool_parts)
  message(FATAL_ERROR "The tests of the command-line tool need ZELLIVE_BUILD_TOOL")
endif()
target_link_libraries(zellive_app_tests PRIVATE zellive_tool_parts)
