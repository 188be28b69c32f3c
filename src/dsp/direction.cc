#include "dsp/direction.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

namespace sonderlark {
namespace {

constexpr double kPeakWeight = 0.7;
constexpr double kMarginWeight = 4.0;
constexpr double kLagScale = 0.125;  // angle sine, and consistency lost, per sample of lag
constexpr double kEndToEndWeight = 0.55;
constexpr double kAdjacentWeight = 0.25;
constexpr double kConsistencyWeight = 0.2;
constexpr double kPi = 3.141592653589793;

// Score of one lag. Both passes run in index order over the overlap only.
double lag_score(const double* a, const double* b, std::size_t n, int32_t lag) {
  const int64_t begin = std::max<int64_t>(0, -static_cast<int64_t>(lag));
  const int64_t end = std::min<int64_t>(static_cast<int64_t>(n), static_cast<int64_t>(n) - lag);
  const int64_t m = end - begin;
  if (n == 0 || m < kMinOverlapPairs) return 0.0;
  double sum_a = 0.0;
  double sum_b = 0.0;
  for (int64_t i = begin; i < end; ++i) {
    sum_a += a[i];
    sum_b += b[i + lag];
  }
  const double mean_a = sum_a / static_cast<double>(m);
  const double mean_b = sum_b / static_cast<double>(m);
  double sab = 0.0;
  double saa = 0.0;
  double sbb = 0.0;
  for (int64_t i = begin; i < end; ++i) {
    const double da = a[i] - mean_a;
    const double db = b[i + lag] - mean_b;
    sab += da * db;
    saa += da * da;
    sbb += db * db;
  }
  if (saa > 0.0 && sbb > 0.0) return sab / std::sqrt(saa * sbb);
  return 0.0;
}

}  // namespace

LagResult best_lag(std::span<const double> a, std::span<const double> b, int32_t max_lag) {
  LagResult result;
  const std::size_t n = std::min(a.size(), b.size());
  double best = -1.0;
  double second = -1.0;
  for (int32_t lag = -max_lag; lag <= max_lag; ++lag) {
    const double r = lag_score(a.data(), b.data(), n, lag);
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

DirectionEstimate estimate_direction(const WavData& data, const std::string& source_label) {
  DirectionEstimate estimate;
  estimate.samples_source = source_label;
  if (data.channels < 4 || data.samples.size() < 4 || data.samples[0].empty()) return estimate;

  const auto& ch = data.samples;
  const LagResult r03 = best_lag(ch[0], ch[3], kEndToEndMaxLag);
  const LagResult r01 = best_lag(ch[0], ch[1], kAdjacentMaxLag);
  const LagResult r12 = best_lag(ch[1], ch[2], kAdjacentMaxLag);
  const LagResult r23 = best_lag(ch[2], ch[3], kAdjacentMaxLag);

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
