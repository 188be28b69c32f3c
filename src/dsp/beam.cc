#include "dsp/beam.h"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <cstring>

#include "util/vector_clones.h"

namespace sonderlark {

namespace {

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

// out[i] = ((((0.0 + c0[i + l0]) + c1[i + l1]) + c2[i + l2]) + c3[i + l3]) / 4
// for i in [begin, end), every index inside: the four-channel mean of the
// inner range, eight outputs at a time (the compiler's own widening of the
// plain loop ran about a fifth slower here).
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

}  // namespace

void beam_block(const double* const* ch, std::size_t channels, const std::vector<int32_t>& lags, int64_t origin,
                int64_t n, int64_t from, int64_t to, double* out) {
  int64_t lowest = 0;
  int64_t highest = 0;
  for (std::size_t c = 0; c < channels; ++c) {
    lowest = std::min<int64_t>(lowest, lags[c]);
    highest = std::max<int64_t>(highest, lags[c]);
  }
  // Where every shifted index is inside, four channels need no check.
  const int64_t inner_begin = std::clamp(-lowest, from, to);
  const int64_t inner_end = channels == 4 ? std::clamp(n - highest, inner_begin, to) : inner_begin;
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
  }
  for (int64_t i = inner_end; i < to; ++i) out[i - from] = edge_sample(i);
}

BeamformResult choose_beam(const DirectionEstimate& direction, int32_t channels, bool estimated,
                           const AlignChannels& align) {
  BeamformResult result;
  result.lags.assign(static_cast<std::size_t>(channels), 0);
  if (!direction.low_confidence && channels >= kMinSteeringChannels) {
    for (int32_t c = 0; c < channels; ++c) {
      // Division first, then the lag; lround takes halves away from zero.
      const double share = static_cast<double>(c) / static_cast<double>(channels - 1);
      result.lags[static_cast<std::size_t>(c)] = static_cast<int32_t>(std::lround(share * direction.lag_samples_ch0_to_ch3));
    }
    result.method = kGuidedBeamMethod;
    return result;
  }
  static_assert(kFallbackMaxLag == kEndToEndMaxLag);
  std::vector<std::size_t> wanted;
  for (std::size_t c = 1; c < result.lags.size(); ++c) {
    if (c == 3 && estimated) {
      result.lags[c] = direction.lag_samples_ch0_to_ch3;
    } else {
      wanted.push_back(c);
    }
  }
  const std::vector<int32_t> found = wanted.empty() ? std::vector<int32_t>{} : align(wanted);
  for (std::size_t k = 0; k < wanted.size(); ++k) result.lags[wanted[k]] = found[k];
  result.method = kFallbackBeamMethod;
  return result;
}

BeamformResult beamform_delay_and_sum(const WavData& data, const DirectionEstimate& direction) {
  if (data.channels <= 0 || data.samples.empty()) return {};
  const auto& ch = data.samples;
  assert(ch.size() == static_cast<std::size_t>(data.channels));
  BeamformResult result = choose_beam(direction, data.channels, false, [&ch](const std::vector<std::size_t>& wanted) {
    std::vector<int32_t> lags;
    for (std::size_t c : wanted) lags.push_back(best_lag(ch[0], ch[c], kFallbackMaxLag).lag);
    return lags;
  });
  std::vector<const double*> at;
  for (const auto& channel : ch) at.push_back(channel.data());
  const int64_t n = static_cast<int64_t>(ch[0].size());
  result.samples.resize(ch[0].size());
  beam_block(at.data(), at.size(), result.lags, 0, n, 0, n, result.samples.data());
  return result;
}

}  // namespace sonderlark
