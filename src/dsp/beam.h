#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "audio/wav.h"
#include "dsp/direction.h"

namespace sonderlark {

// A steered mono signal: the mean of the channels, each read lags[c]
// samples ahead (output i takes channel c at i + lags[c]; lag convention of
// direction.h). Near the ends fewer channels contribute.
struct BeamformResult {
  std::vector<double> samples;  // one per sample of channel 0
  std::vector<int32_t> lags;    // per channel, lags[0] == 0
  std::string method;           // empty only when the input had no channels
};

constexpr int32_t kMinSteeringChannels = 4;
constexpr int32_t kFallbackMaxLag = 8;

// The beam of a whole record of `data.channels` channels of one length:
// choose_beam's shifts (every channel searched), then one beam_block.
BeamformResult beamform_delay_and_sum(const WavData& data, const DirectionEstimate& direction);

// Lags of channel 0 against each listed channel, by best_lag within +-8.
using AlignChannels = std::function<std::vector<int32_t>(const std::vector<std::size_t>& channels)>;

// The shifts and method of the beam. With a confident estimate and at least
// 4 channels, channel c is shifted by round(c / (m - 1) x L) with L the
// end-to-end lag ("direction-guided"); otherwise each channel c >= 1 is
// aligned to channel 0 by `align` ("fallback channel-alignment"). When the
// estimate was made from these very samples (`estimated`), its channel 0 /
// channel 3 search is channel 3's alignment and is not made again.
BeamformResult choose_beam(const DirectionEstimate& direction, int32_t channels, bool estimated,
                           const AlignChannels& align);

inline constexpr const char* kGuidedBeamMethod = "direction-guided delay-and-sum from processed samples";
inline constexpr const char* kFallbackBeamMethod = "fallback channel-alignment delay-and-sum from processed samples";

// One block of the beam of channels of length n: out[i - from] for i in
// [from, to), with sample i of channel c at ch[c][i - origin]. Each channel
// must hold the indices the lags reach from the block that lie in [0, n).
// The same bits as the whole-record beam at those indices.
void beam_block(const double* const* ch, std::size_t channels, const std::vector<int32_t>& lags, int64_t origin,
                int64_t n, int64_t from, int64_t to, double* out);

}  // namespace sonderlark
