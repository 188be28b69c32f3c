#include "dsp/gain.h"

#include <cmath>
#include <cstdint>

#include "util/text.h"
#include "util/vector_clones.h"

namespace sonderlark {

// Exactly +-1.0 is full scale, not a clip; NaN passes through.
SONDERLARK_VECTOR_CLONES
int64_t scale_and_limit(double* s, std::size_t n, double gain) {
  int64_t clipped = 0;
  for (std::size_t i = 0; i < n; ++i) {
    const double v = s[i] * gain;
    const bool above = v > 1.0;
    const bool below = v < -1.0;
    s[i] = above ? 1.0 : (below ? -1.0 : v);
    clipped += above || below;
  }
  return clipped;
}

double gain_factor(double gain_db) { return std::pow(10.0, gain_db / 20.0); }

void add_clipping_warning(double gain_db, const std::vector<int64_t>& clipped, std::vector<std::string>& warnings) {
  bool any_clipped = false;
  for (int64_t count : clipped) any_clipped = any_clipped || count > 0;
  if (!any_clipped) return;
  std::string warning = "input gain " + fixed(gain_db, 1) + " dB caused processed-signal clipping";
  for (std::size_t c = 0; c < clipped.size(); ++c) {
    if (clipped[c] > 0) {
      warning += "; ch" + std::to_string(c) + " clipped_samples=" + std::to_string(clipped[c]);
    }
  }
  warnings.push_back(warning);
}

WavData apply_input_gain(WavData record, double gain_db, std::vector<std::string>& warnings) {
  WavData processed = std::move(record);
  const double gain = gain_factor(gain_db);
  if (processed.channels < 1) return processed;

  std::vector<int64_t> clipped(processed.samples.size(), 0);
  for (std::size_t c = 0; c < processed.samples.size(); ++c) {
    clipped[c] = scale_and_limit(processed.samples[c].data(), processed.samples[c].size(), gain);
  }
  add_clipping_warning(gain_db, clipped, warnings);
  return processed;
}

}  // namespace sonderlark
