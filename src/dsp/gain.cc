#include "dsp/gain.h"

#include <cmath>
#include <cstdint>

#include "util/text.h"

namespace sonderlark {

WavData apply_input_gain(const WavData& raw, double gain_db, std::vector<std::string>& warnings) {
  return apply_input_gain(WavData(raw), gain_db, warnings);
}

WavData apply_input_gain(WavData&& raw, double gain_db, std::vector<std::string>& warnings) {
  WavData processed = std::move(raw);
  const double gain = std::pow(10.0, gain_db / 20.0);
  if (processed.channels < 1) return processed;

  std::vector<int32_t> clipped(processed.samples.size(), 0);
  bool any_clipped = false;
  for (std::size_t c = 0; c < processed.samples.size(); ++c) {
    for (double& s : processed.samples[c]) {
      const double v = s * gain;
      // Exactly +-1.0 is full scale, not a clip.
      if (v > 1.0) {
        s = 1.0;
        ++clipped[c];
      } else if (v < -1.0) {
        s = -1.0;
        ++clipped[c];
      } else {
        s = v;
      }
    }
    any_clipped = any_clipped || clipped[c] > 0;
  }
  if (!any_clipped) return processed;

  std::string warning = "input gain " + fixed(gain_db, 1) + " dB caused processed-signal clipping";
  for (std::size_t c = 0; c < clipped.size(); ++c) {
    if (clipped[c] > 0) {
      warning += "; ch" + std::to_string(c) + " clipped_samples=" + std::to_string(clipped[c]);
    }
  }
  warnings.push_back(warning);
  return processed;
}

}  // namespace sonderlark
