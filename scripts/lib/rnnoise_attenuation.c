/* Inserted into RNNoise's denoise.c by scripts/lib/fetch-rnnoise, ahead of rnnoise_process_frame. */

/* Parameter 1: the largest attenuation, as a linear gain floor; 0 leaves the suppressor alone. Another thread may be
   processing a frame of the same state meanwhile. */
int rnnoise_set_param(DenoiseState *st, int param, float value) {
  if (param != 1) return -1;
  if (!(value == 0 || (value >= 1e-6f && value <= 1))) value = 1e-6f;
  __atomic_store(&st->max_attenuation, &value, __ATOMIC_RELAXED);
  return 0;
}

/* Lifts the smallest band gain to the floor and scales the others in proportion towards 1. */
static void limit_attenuation(DenoiseState *st, float *g) {
  int i;
  float floor_gain, min_gain = g[0], scale;
  __atomic_load(&st->max_attenuation, &floor_gain, __ATOMIC_RELAXED);
  for (i=1;i<NB_BANDS;i++) min_gain = MIN16(min_gain, g[i]);
  if (floor_gain == 0 || min_gain >= floor_gain) return;
  scale = (1 - floor_gain) / (1 - MAX16(min_gain, 1e-6f));
  for (i=0;i<NB_BANDS;i++) g[i] = 1 - scale * (1 - MAX16(g[i], 1e-6f));
}

