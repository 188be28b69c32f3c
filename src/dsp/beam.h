#pragma once

#include <cstdint>
#include <optional>
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

// With a confident estimate and at least 4 channels, channel c is shifted by
// round(c / (m - 1) x L) with L the end-to-end lag ("direction-guided");
// otherwise each channel is aligned to channel 0 by best_lag within +-8
// ("fallback channel-alignment").
BeamformResult beamform_delay_and_sum(const WavData& data, const DirectionEstimate& direction);

// The same on a record the caller no longer needs: the beam is formed in
// channel 0's storage, so a long recording needs no second buffer.
BeamformResult beamform_delay_and_sum(WavData&& data, const DirectionEstimate& direction);

// The same, in channel 0's storage, for a caller that already searched
// channel 0 against channel 3 of this very record over +-8 (as
// estimate_direction does): the fallback then takes `channel3_lag` as
// channel 3's alignment instead of searching again. The result is the same.
BeamformResult beamform_delay_and_sum(WavData&& data, const DirectionEstimate& direction,
                                      std::optional<int32_t> channel3_lag);

inline constexpr const char* kGuidedBeamMethod = "direction-guided delay-and-sum from processed samples";
inline constexpr const char* kFallbackBeamMethod = "fallback channel-alignment delay-and-sum from processed samples";

// True when the beam follows the estimate (confident, 4+ channels) rather
// than aligning each channel to channel 0 on its own.
bool beam_is_guided(const DirectionEstimate& direction, int32_t channels);

// The shifts of a guided beam: channel c by round(c / (channels - 1) x L).
std::vector<int32_t> guided_lags(const DirectionEstimate& direction, int32_t channels);

// One block of the beam of channels of length n: out[i - from] for i in
// [from, to), with sample i of channel c at ch[c][i - origin]. Each channel
// must hold the indices the lags reach from the block that lie in [0, n).
// The same bits as the whole-record beam at those indices.
void beam_block(const double* const* ch, std::size_t channels, const std::vector<int32_t>& lags, int64_t origin,
                int64_t n, int64_t from, int64_t to, double* out);

}  // namespace sonderlark
