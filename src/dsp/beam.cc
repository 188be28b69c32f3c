#include "dsp/beam.h"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <cstring>

#include "util/memory.h"
#include "util/vector_clones.h"

namespace sonderlark {

bool beam_is_guided(const DirectionEstimate& direction, int32_t channels) {
  return !direction.low_confidence && channels >= kMinSteeringChannels;
}

std::vector<int32_t> guided_lags(const DirectionEstimate& direction, int32_t channels) {
  std::vector<int32_t> lags(static_cast<std::size_t>(channels), 0);
  const double end_to_end = direction.lag_samples_ch0_to_ch3;
  for (int32_t c = 0; c < channels; ++c) {
    // Division first, then the lag; lround takes halves away from zero.
    const double share = static_cast<double>(c) / static_cast<double>(channels - 1);
    lags[static_cast<std::size_t>(c)] = static_cast<int32_t>(std::lround(share * end_to_end));
  }
  return lags;
}

namespace {

// Shifts and method: guided by a confident estimate on 4+ channels, else
// each channel aligned to channel 0 on its own (channel 3 by `channel3_lag`
// when the caller already searched it).
void choose_lags(const WavData& data, const DirectionEstimate& direction, std::size_t channels,
                 std::optional<int32_t> channel3_lag, BeamformResult& result) {
  const int32_t m = data.channels;
  const auto& ch = data.samples;
  if (beam_is_guided(direction, m)) {
    result.lags = guided_lags(direction, m);
    result.method = kGuidedBeamMethod;
  } else {
    static_assert(kFallbackMaxLag == kEndToEndMaxLag);
    result.lags.assign(static_cast<std::size_t>(m), 0);
    for (std::size_t c = 1; c < channels; ++c) {
      result.lags[c] = c == 3 && channel3_lag ? *channel3_lag : best_lag(ch[0], ch[c], kFallbackMaxLag).lag;
    }
    result.method = kFallbackBeamMethod;
  }
}

typedef double Block __attribute__((vector_size(8 * sizeof(double))));
// Blocks are passed by value only within this file's inlined helpers, so the
// AVX calling-convention note does not concern any interface.
#pragma GCC diagnostic ignored "-Wpsabi"

// Adds the eight values at p to sum (no vector is returned: Clang refuses
// wide vector returns in code built for the baseline target).
__attribute__((always_inline)) inline void add_block(Block& sum, const double* p) {
  Block v;
  std::memcpy(&v, p, sizeof v);
  sum += v;
}

// out[i] = (((0.0 + c0[i + l0]) + c1[i + l1]) + c2[i + l2]) + c3[i + l3]) / 4
// for i in [begin, end), every index inside: the four-channel mean of the
// inner range, eight outputs at a time. All reads of a block come before
// its store, so out may be channel 0's own storage (l0 is 0).
SONDERLARK_VECTOR_CLONES
void mean_of_four(const double* c0, const double* c1, const double* c2, const double* c3, const int32_t* lags,
                  int64_t begin, int64_t end, double* out) {
  const int64_t l0 = lags[0];
  const int64_t l1 = lags[1];
  const int64_t l2 = lags[2];
  const int64_t l3 = lags[3];
  int64_t i = begin;
  for (; i + 8 <= end; i += 8) {
    Block sum = {};  // +0.0 in every lane, as the scalar sum starts
    add_block(sum, c0 + (i + l0));
    add_block(sum, c1 + (i + l1));
    add_block(sum, c2 + (i + l2));
    add_block(sum, c3 + (i + l3));
    const Block mean = sum / 4.0;
    std::memcpy(out + i, &mean, sizeof mean);
  }
  for (; i < end; ++i) out[i] = ((((0.0 + c0[i + l0]) + c1[i + l1]) + c2[i + l2]) + c3[i + l3]) / 4.0;
}

// out[i] = mean of ch[c][i + lags[c]] over the channels whose index is
// inside, summed in channel order. `out` may be channel 0's own storage:
// out[i] is written after the last read of channel 0 at i (its lag is 0).
void average_aligned(const std::vector<std::vector<double>>& ch, std::size_t channels,
                     const std::vector<int32_t>& lags, double* out) {
  assert(out != ch[0].data() || lags[0] == 0);  // in place only when channel 0 is not shifted
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
  if (channels == 4) {
    mean_of_four(ch[0].data(), ch[1].data(), ch[2].data(), ch[3].data(), lags.data(), inner_begin, inner_end, out);
  }
  for (int64_t i = channels == 4 ? inner_end : inner_begin; i < inner_end; ++i) {
    double sum = 0.0;
    for (std::size_t c = 0; c < channels; ++c) sum += ch[c][static_cast<std::size_t>(i + lags[c])];
    out[i] = sum / count;
  }
  for (int64_t i = inner_end; i < n; ++i) out[i] = edge_sample(i);
}

}  // namespace

void beam_block(const double* const* ch, std::size_t channels, const std::vector<int32_t>& lags, int64_t origin,
                int64_t n, int64_t from, int64_t to, double* out) {
  int64_t lowest = 0;
  int64_t highest = 0;
  for (std::size_t c = 0; c < channels; ++c) {
    lowest = std::min<int64_t>(lowest, lags[c]);
    highest = std::max<int64_t>(highest, lags[c]);
  }
  // Where every shifted index is inside, no check is needed.
  const int64_t inner_begin = std::clamp(-lowest, from, to);
  const int64_t inner_end = std::clamp(n - highest, inner_begin, to);
  auto edge_sample = [&](int64_t i) {
    double sum = 0.0;
    int32_t count = 0;
    for (std::size_t c = 0; c < channels; ++c) {
      const int64_t j = i + lags[c];
      if (j >= 0 && j < n) {
        sum += ch[c][j - origin];
        ++count;
      }
    }
    return count > 0 ? sum / count : 0.0;
  };
  for (int64_t i = from; i < inner_begin; ++i) out[i - from] = edge_sample(i);
  if (channels == 4) {
    const int64_t at = inner_begin - origin;
    mean_of_four(ch[0] + at, ch[1] + at, ch[2] + at, ch[3] + at, lags.data(), 0, inner_end - inner_begin,
                 out + (inner_begin - from));
  } else {
    const double count = static_cast<double>(channels);
    for (int64_t i = inner_begin; i < inner_end; ++i) {
      double sum = 0.0;
      for (std::size_t c = 0; c < channels; ++c) sum += ch[c][i + lags[c] - origin];
      out[i - from] = sum / count;
    }
  }
  for (int64_t i = inner_end; i < to; ++i) out[i - from] = edge_sample(i);
}

BeamformResult beamform_delay_and_sum(const WavData& data, const DirectionEstimate& direction) {
  BeamformResult result;
  if (data.channels <= 0 || data.samples.empty()) return result;
  const std::size_t channels = std::min(static_cast<std::size_t>(data.channels), data.samples.size());
  choose_lags(data, direction, channels, std::nullopt, result);
  reserve_large(result.samples, data.samples[0].size());
  result.samples.resize(data.samples[0].size());
  average_aligned(data.samples, channels, result.lags, result.samples.data());
  return result;
}

BeamformResult beamform_delay_and_sum(WavData&& data, const DirectionEstimate& direction) {
  return beamform_delay_and_sum(std::move(data), direction, std::nullopt);
}

BeamformResult beamform_delay_and_sum(WavData&& data, const DirectionEstimate& direction,
                                      std::optional<int32_t> channel3_lag) {
  BeamformResult result;
  if (data.channels <= 0 || data.samples.empty()) return result;
  const std::size_t channels = std::min(static_cast<std::size_t>(data.channels), data.samples.size());
  choose_lags(data, direction, channels, channel3_lag, result);
  average_aligned(data.samples, channels, result.lags, data.samples[0].data());
  result.samples = std::move(data.samples[0]);
  return result;
}

}  // namespace sonderlark
