target_link_libraries(zellive_gpu_tests PRIVATE PkgConfig::TEST_GLES PkgConfig::TEST_CAIRO)
