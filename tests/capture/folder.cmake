# Drawn pictures are compared in the same way as the pipeline's.
target_sources(zellive_capture_tests PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/gpu/Golden.cpp)
