#include "dsp/beam.h"

#include <algorithm>
#include <cmath>

#include "util/memory.h"

namespace sonderlark {
namespace {

// Shifts and method: guided by a confident estimate on 4+ channels, else
// each channel aligned to channel 0 on its own.
void choose_lags(const WavData& data, const DirectionEstimate& direction, std::size_t channels,
                 BeamformResult& result) {
  const int32_t m = data.channels;
  const auto& ch = data.samples;
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
}

// out[i] = mean of ch[c][i + lags[c]] over the channels whose index is
// inside, summed in channel order. `out` may be channel 0's own storage:
// out[i] is written after the last read of channel 0 at i (its lag is 0).
void average_aligned(const std::vector<std::vector<double>>& ch, std::size_t channels,
                     const std::vector<int32_t>& lags, double* out) {
  const int64_t n = static_cast<int64_t>(ch[0].size());
  int64_t lowest = 0;
  int64_t highest = 0;
  bool same_lengths = true;
  for (std::size_t c = 0; c < channels; ++c) {
    lowest = std::min<int64_t>(lowest, lags[c]);
    highest = std::max<int64_t>(highest, lags[c]);
    same_lengths = same_lengths && static_cast<int64_t>(ch[c].size()) == n;
  }
  // Where every shifted index is inside, no check is needed.
  const int64_t inner_begin = same_lengths ? std::min(n, -lowest) : n;
  const int64_t inner_end = same_lengths ? std::max(inner_begin, n - highest) : n;
  auto edge_sample = [&](int64_t i) {
    double sum = 0.0;
    int32_t count = 0;
    for (std::size_t c = 0; c < channels; ++c) {
      const int64_t j = i + lags[c];
      if (j >= 0 && j < n && j < static_cast<int64_t>(ch[c].size())) {
        sum += ch[c][static_cast<std::size_t>(j)];
        ++count;
      }
    }
    return count > 0 ? sum / count : 0.0;
  };
  for (int64_t i = 0; i < inner_begin; ++i) out[i] = edge_sample(i);
  const double count = static_cast<double>(channels);
  for (int64_t i = inner_begin; i < inner_end; ++i) {
    double sum = 0.0;
    for (std::size_t c = 0; c < channels; ++c) sum += ch[c][static_cast<std::size_t>(i + lags[c])];
    out[i] = sum / count;
  }
  for (int64_t i = inner_end; i < n; ++i) out[i] = edge_sample(i);
}

}  // namespace

BeamformResult beamform_delay_and_sum(const WavData& data, const DirectionEstimate& direction) {
  BeamformResult result;
  if (data.channels <= 0 || data.samples.empty()) return result;
  const std::size_t channels = std::min(static_cast<std::size_t>(data.channels), data.samples.size());
  choose_lags(data, direction, channels, result);
  reserve_large(result.samples, data.samples[0].size());
  result.samples.resize(data.samples[0].size());
  average_aligned(data.samples, channels, result.lags, result.samples.data());
  return result;
}

BeamformResult beamform_delay_and_sum(WavData&& data, const DirectionEstimate& direction) {
  BeamformResult result;
  if (data.channels <= 0 || data.samples.empty()) return result;
  const std::size_t channels = std::min(static_cast<std::size_t>(data.channels), data.samples.size());
  choose_lags(data, direction, channels, result);
  average_aligned(data.samples, channels, result.lags, data.samples[0].data());
  result.samples = std::move(data.samples[0]);
  return result;
}

}  // namespace sonderlark
