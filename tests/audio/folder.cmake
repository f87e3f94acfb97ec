# The suppressor itself is the yardstick of some tests; the library does not export it.
target_link_libraries(zellive_audio_tests PRIVATE zellive_rnnoise)
