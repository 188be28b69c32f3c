#include "dsp/direction.h"

#include "dsp/lag_kernels.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <vector>

namespace sonderlark {
namespace {

constexpr double kPeakWeight = 0.7;
constexpr double kMarginWeight = 4.0;
constexpr double kLagScale = 0.125;  // angle sine, and consistency lost, per sample of lag
constexpr double kEndToEndWeight = 0.55;
constexpr double kAdjacentWeight = 0.25;
constexpr double kConsistencyWeight = 0.2;
constexpr double kPi = 3.141592653589793;

}  // namespace

LagResult best_lag(std::span<const double> a, std::span<const double> b, int32_t max_lag) {
  double scores[2 * kChannelSumReach + 1];
  lag_scores(default_lag_kernel(), a, b, max_lag, scores);
  return pick_lag(scores, max_lag);
}

LagResult pick_lag(const double* scores, int32_t max_lag) {
  LagResult result;
  double best = -1.0;
  double second = -1.0;
  for (int32_t lag = -max_lag; lag <= max_lag; ++lag) {
    const double r = scores[lag + max_lag];
    if (r > best) {  // strictly: the most negative of equal scores wins
      second = best;
      best = r;
      result.lag = lag;
    } else if (r > second) {
      second = r;
    }
  }
  result.peak_correlation = best > 0.0 ? best : 0.0;
  result.second_correlation = second > 0.0 ? second : 0.0;
  if (result.peak_correlation > 0.0) {
    const double margin = std::clamp(result.peak_correlation - result.second_correlation, 0.0, 1.0);
    result.confidence = std::min(kPeakWeight * result.peak_correlation + kMarginWeight * margin, 1.0);
  }
  return result;
}

bool can_estimate_direction(int32_t channels, uint64_t frames) { return channels >= 4 && frames > 0; }

DirectionEstimate estimate_direction(const WavData& data, const std::string& source_label) {
  const auto& ch = data.samples;
  if (ch.size() < 4 || !can_estimate_direction(data.channels, ch[0].size())) {
    DirectionEstimate estimate;
    estimate.samples_source = source_label;
    return estimate;
  }
  return direction_from_lags(best_lag(ch[0], ch[3], kEndToEndMaxLag), best_lag(ch[0], ch[1], kAdjacentMaxLag),
                             best_lag(ch[1], ch[2], kAdjacentMaxLag), best_lag(ch[2], ch[3], kAdjacentMaxLag),
                             source_label);
}

DirectionEstimate direction_from_lags(const LagResult& r03, const LagResult& r01, const LagResult& r12,
                                      const LagResult& r23, const std::string& source_label) {
  DirectionEstimate estimate;
  estimate.samples_source = source_label;
  const int32_t direct = r03.lag;
  const int32_t chained = r01.lag + r12.lag + r23.lag;
  estimate.lag_consistency = std::max(1.0 - std::abs(direct - chained) * kLagScale, 0.0);
  estimate.lag_samples_ch0_to_ch3 = direct;
  estimate.peak_correlation = r03.peak_correlation;
  estimate.second_correlation = r03.second_correlation;

  const double ratio = std::clamp(direct * kLagScale, -1.0, 1.0);
  estimate.angle_degrees = std::asin(ratio) * 180.0 / kPi;

  // Added in this order; the order is part of the result.
  const double adjacent = (r01.confidence + r12.confidence + r23.confidence) / 3.0;
  const double confidence = adjacent * kAdjacentWeight + r03.confidence * kEndToEndWeight +
                            estimate.lag_consistency * kConsistencyWeight;
  if (confidence < 0.0) {
    estimate.confidence = 0.0;
    estimate.low_confidence = true;
  } else if (confidence > 1.0) {
    estimate.confidence = 1.0;
    estimate.low_confidence = false;
  } else {
    estimate.confidence = confidence;
    estimate.low_confidence = confidence < kLowConfidenceThreshold;
  }
  return estimate;
}

}  // namespace sonderlark
