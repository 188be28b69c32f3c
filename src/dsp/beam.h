#pragma once

#include <cstdint>
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

// beamform_delay_and_sum(std::move(data), direction) for a `direction` that
// estimate_direction made from this very record. The fallback's channel 0 /
// channel 3 search is then the estimate's own end-to-end search (same
// sequences, same +-8 range), so its lag is taken from the estimate instead
// of being searched twice. The result is the same; with any other estimate
// it would not be.
BeamformResult beamform_with_own_estimate(WavData&& data, const DirectionEstimate& direction);

}  // namespace sonderlark
