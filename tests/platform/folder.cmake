# What the decoder of compressed pictures holds is FFmpeg's.
pkg_check_modules(TEST_FFMPEG REQUIRED IMPORTED_TARGET libavcodec libavutil)
target_link_libraries(zellive_platform_tests PRIVATE PkgConfig::TEST_FFMPEG)
