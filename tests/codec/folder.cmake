# Some tests decode what the encoders made.
pkg_check_modules(TEST_FFMPEG REQUIRED IMPORTED_TARGET libavcodec libavutil)
target_link_libraries(zellive_codec_tests PRIVATE PkgConfig::TEST_FFMPEG)
