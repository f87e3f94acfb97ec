# RNNoise, from the sources that scripts/setup fetches. Static and hidden, so that an application or another library of
# the process may hold its own copy (or the FFT and pitch code that RNNoise shares with codecs) without a clash.
if(NOT EXISTS ${ZELLIVE_RNNOISE_DIR}/include/rnnoise.h)
  message(FATAL_ERROR "RNNoise's sources are not in ${ZELLIVE_RNNOISE_DIR}. Run scripts/setup first.")
endif()
file(STRINGS ${ZELLIVE_RNNOISE_DIR}/include/rnnoise.h rnnoise_set_param REGEX rnnoise_set_param)
if(NOT rnnoise_set_param)
  message(FATAL_ERROR "RNNoise in ${ZELLIVE_RNNOISE_DIR} lacks rnnoise_set_param. Run scripts/setup, which adds it.")
endif()

# Without rnn_reader.c: only the built-in model is used.
add_library(zellive_rnnoise STATIC)
foreach(source celt_lpc denoise kiss_fft pitch rnn rnn_data)
  target_sources(zellive_rnnoise PRIVATE ${ZELLIVE_RNNOISE_DIR}/src/${source}.c)
endforeach()
target_include_directories(zellive_rnnoise SYSTEM PUBLIC ${ZELLIVE_RNNOISE_DIR}/include)
set_target_properties(zellive_rnnoise PROPERTIES C_VISIBILITY_PRESET hidden POSITION_INDEPENDENT_CODE ON)
target_compile_definitions(zellive_rnnoise PRIVATE COMPILE_OPUS FLOAT_APPROX)
# For compiling only: a linker that is told -ffast-math would make every thread of the application flush denormals.
target_compile_options(zellive_rnnoise PRIVATE -O3 -ffast-math -fno-finite-math-only -w)
