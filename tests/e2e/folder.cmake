if(NOT TARGET zellive_tool_parts OR NOT TARGET push_test_picture)
  message(FATAL_ERROR "The end-to-end tests need ZELLIVE_BUILD_TOOL and ZELLIVE_BUILD_EXAMPLES")
endif()
find_package(nlohmann_json REQUIRED)
target_compile_definitions(zellive_e2e_tests PRIVATE ZELLIVE_PROGRAM="$<TARGET_FILE:zellive_tool>"
  ZELLIVE_EXAMPLE="$<TARGET_FILE:push_test_picture>")
target_link_libraries(zellive_e2e_tests PRIVATE zellive_tool_parts nlohmann_json::nlohmann_json)
add_dependencies(zellive_e2e_tests zellive_tool push_test_picture)
