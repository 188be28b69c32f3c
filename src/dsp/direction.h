#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "audio/wav.h"

namespace sonderlark {

// Lag: a lag L of sequence b against sequence a pairs a[i] with b[i + L].
// A positive lag means that b carries the same signal L samples later.
//
//   a:  . . x . . .
//   b:  . . . . x .     lag +2

// Result of a lag search over -max_lag .. +max_lag.
struct LagResult {
  int32_t lag = 0;                  // lag with the highest correlation
  double peak_correlation = 0.0;    // that correlation, 0.0 unless positive
  double second_correlation = 0.0;  // runner-up over all lags, 0.0 unless positive
  double confidence = 0.0;          // 0..1: 0.7 x peak + 4 x margin over the runner-up
};

// Angle of arrival of the dominant sound and its quality figures.
struct DirectionEstimate {
  double angle_degrees = 0.0;  // -90..+90, positive when channel 3 hears it later than channel 0
  double confidence = 0.0;     // 0..1
  int32_t lag_samples_ch0_to_ch3 = 0;  // -8..+8
  double peak_correlation = 0.0;       // channel 0 / channel 3 pair
  double second_correlation = 0.0;     // channel 0 / channel 3 pair
  double lag_consistency = 0.0;  // 0..1: direct 0/3 lag against the sum of adjacent lags
  std::string method = "processed multi-pair centered cross-correlation";
  std::string samples_source = "processed";
  bool low_confidence = true;  // confidence < 0.35
};

constexpr int32_t kEndToEndMaxLag = 8;   // channel 0 / 3; a lag of 8 is 90 degrees
constexpr int32_t kAdjacentMaxLag = 4;   // channels 0/1, 1/2, 2/3
constexpr int32_t kMinOverlapPairs = 16; // fewer overlapping pairs score 0.0
constexpr double kLowConfidenceThreshold = 0.35;

// Centred, normalised cross-correlation of a and b at every lag from
// -max_lag to +max_lag (at most 8) over the first n = min(|a|, |b|) samples of each;
// means are taken per lag over the overlapping pairs only. Ties go to the
// most negative lag; when every lag scores 0.0 the result's lag is -max_lag.
LagResult best_lag(std::span<const double> a, std::span<const double> b, int32_t max_lag);

// The choice best_lag makes from the scores of lags -max_lag .. +max_lag
// (scores[L + max_lag]).
LagResult pick_lag(const double* scores, int32_t max_lag);

// Whether a record of this shape gets an estimate: 4 channels or more, not empty.
bool can_estimate_direction(int32_t channels, uint64_t frames);

// Direction from the lags of channel pairs 0/3 (+-8) and 0/1, 1/2, 2/3 (+-4)
// of a whole record of `data.channels` channels of one length; further
// channels are ignored. A record that cannot have an estimate gives the
// defaults (low confidence). `samples_source` is `source_label` in every case.
DirectionEstimate estimate_direction(const WavData& data, const std::string& source_label);

// The estimate from the four searches: channels 0/3 (+-8), 0/1, 1/2 and 2/3
// (+-4).
DirectionEstimate direction_from_lags(const LagResult& r03, const LagResult& r01, const LagResult& r12,
                                      const LagResult& r23, const std::string& source_label);

}  // namespace sonderlark
