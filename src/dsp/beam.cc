#include "dsp/beam.h"

#include <cmath>

namespace sonderlark {

BeamformResult beamform_delay_and_sum(const WavData& data, const DirectionEstimate& direction) {
  BeamformResult result;
  const int32_t m = data.channels;
  if (m <= 0 || data.samples.empty()) return result;
  const auto& ch = data.samples;
  const std::size_t channels = std::min(static_cast<std::size_t>(m), ch.size());

  result.lags.assign(static_cast<std::size_t>(m), 0);
  if (!direction.low_confidence && m >= kMinSteeringChannels) {
    const double end_to_end = direction.lag_samples_ch0_to_ch3;
    for (int32_t c = 0; c < m; ++c) {
      // Division first, then the lag; lround takes halves away from zero.
      const double share = static_cast<double>(c) / static_cast<double>(m - 1);
      result.lags[static_cast<std::size_t>(c)] = static_cast<int32_t>(std::lround(share * end_to_end));
    }
    result.method = "direction-guided delay-and-sum from processed samples";
  } else {
    for (std::size_t c = 1; c < channels; ++c) result.lags[c] = best_lag(ch[0], ch[c], kFallbackMaxLag).lag;
    result.method = "fallback channel-alignment delay-and-sum from processed samples";
  }

  const int64_t n = static_cast<int64_t>(ch[0].size());
  result.samples.resize(static_cast<std::size_t>(n));
  for (int64_t i = 0; i < n; ++i) {
    double sum = 0.0;
    int32_t count = 0;
    for (std::size_t c = 0; c < channels; ++c) {
      const int64_t j = i + result.lags[c];
      if (j >= 0 && j < n && j < static_cast<int64_t>(ch[c].size())) {
        sum += ch[c][static_cast<std::size_t>(j)];
        ++count;
      }
    }
    result.samples[static_cast<std::size_t>(i)] = count > 0 ? sum / count : 0.0;
  }
  return result;
}

}  // namespace sonderlark
