#include "dsp/beam.h"

#include <algorithm>
#include <cmath>

#include "util/memory.h"

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
  reserve_large(result.samples, static_cast<std::size_t>(n));
  result.samples.resize(static_cast<std::size_t>(n));
  // Where every channel's shifted index is inside, no check is needed; the
  // sum runs in channel order either way.
  int64_t lowest = 0;
  int64_t highest = 0;
  bool same_lengths = true;
  for (std::size_t c = 0; c < channels; ++c) {
    lowest = std::min<int64_t>(lowest, result.lags[c]);
    highest = std::max<int64_t>(highest, result.lags[c]);
    same_lengths = same_lengths && static_cast<int64_t>(ch[c].size()) == n;
  }
  const int64_t inner_begin = same_lengths ? std::min(n, -lowest) : n;
  const int64_t inner_end = same_lengths ? std::max(inner_begin, n - highest) : n;
  auto edge_sample = [&](int64_t i) {
    double sum = 0.0;
    int32_t count = 0;
    for (std::size_t c = 0; c < channels; ++c) {
      const int64_t j = i + result.lags[c];
      if (j >= 0 && j < n && j < static_cast<int64_t>(ch[c].size())) {
        sum += ch[c][static_cast<std::size_t>(j)];
        ++count;
      }
    }
    return count > 0 ? sum / count : 0.0;
  };
  for (int64_t i = 0; i < inner_begin; ++i) result.samples[static_cast<std::size_t>(i)] = edge_sample(i);
  const double count = static_cast<double>(channels);
  for (int64_t i = inner_begin; i < inner_end; ++i) {
    double sum = 0.0;
    for (std::size_t c = 0; c < channels; ++c) sum += ch[c][static_cast<std::size_t>(i + result.lags[c])];
    result.samples[static_cast<std::size_t>(i)] = sum / count;
  }
  for (int64_t i = inner_end; i < n; ++i) result.samples[static_cast<std::size_t>(i)] = edge_sample(i);
  return result;
}

}  // namespace sonderlark
