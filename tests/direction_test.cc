#include <gtest/gtest.h>

#include <cmath>

#include "dsp/direction.h"
#include "support.h"
#include "util/text.h"

namespace sonderlark {
namespace {

using test::record;

// Channel c hears the noise round(c x L / 3) samples after channel 0.
WavData delayed_noise(int end_to_end_lag, std::size_t n = 4096, uint32_t seed = 7) {
  const std::vector<double> noise = test::white_noise(n, 0.5, seed);
  std::vector<std::vector<double>> channels;
  for (int c = 0; c < 4; ++c) channels.push_back(test::shifted(noise, static_cast<int>(std::lround(c * end_to_end_lag / 3.0))));
  return record(channels);
}

struct AngleRow {
  int lag;
  const char* angle;  // two decimals, from the physics: asin(lag / 8)
};

void PrintTo(const AngleRow& c, std::ostream* os) { *os << c.lag; }

class DelayedNoise : public testing::TestWithParam<AngleRow> {};

TEST_P(DelayedNoise, FindsTheLagAndItsAngleBitExactness) {
  const AngleRow row = GetParam();
  const DirectionEstimate e = estimate_direction(delayed_noise(row.lag), "processed");
  EXPECT_EQ(e.lag_samples_ch0_to_ch3, row.lag);
  EXPECT_EQ(fixed(e.angle_degrees, 2), row.angle);
  EXPECT_EQ(e.lag_consistency, 1.0);
  EXPECT_GT(e.peak_correlation, 0.99);
  EXPECT_FALSE(e.low_confidence);
  EXPECT_GE(e.confidence, 0.9);
  EXPECT_LE(e.confidence, 1.0);
  EXPECT_EQ(e.samples_source, "processed");
}

INSTANTIATE_TEST_SUITE_P(
    Lags, DelayedNoise,
    testing::Values(AngleRow{0, "0.00"}, AngleRow{1, "7.18"}, AngleRow{2, "14.48"}, AngleRow{3, "22.02"},
                    AngleRow{4, "30.00"}, AngleRow{5, "38.68"}, AngleRow{6, "48.59"}, AngleRow{7, "61.04"},
                    AngleRow{8, "90.00"}, AngleRow{-1, "-7.18"}, AngleRow{-2, "-14.48"}, AngleRow{-3, "-22.02"},
                    AngleRow{-4, "-30.00"}, AngleRow{-5, "-38.68"}, AngleRow{-6, "-48.59"}, AngleRow{-7, "-61.04"},
                    AngleRow{-8, "-90.00"}),
    [](const auto& info) { return (info.param.lag < 0 ? "Minus" : "Plus") + std::to_string(std::abs(info.param.lag)); });

TEST(EstimateDirection, OneSampleSteps) {
  // Channel k is channel 0 delayed by k samples: adjacent lags 1, direct lag 3.
  const std::vector<double> noise = test::white_noise(2048, 0.3, 3);
  const DirectionEstimate later = estimate_direction(
      record({noise, test::shifted(noise, 1), test::shifted(noise, 2), test::shifted(noise, 3)}), "x");
  EXPECT_EQ(later.lag_samples_ch0_to_ch3, 3);
  EXPECT_EQ(later.angle_degrees, std::asin(0.375) * 180.0 / 3.141592653589793);
  const DirectionEstimate earlier = estimate_direction(
      record({noise, test::shifted(noise, -1), test::shifted(noise, -2), test::shifted(noise, -3)}), "x");
  EXPECT_EQ(earlier.angle_degrees, -later.angle_degrees);
}

TEST(EstimateDirection, IdenticalChannelsBitExactness) {
  const std::vector<double> noise = test::white_noise(4000, 0.5, 11);
  const DirectionEstimate e = estimate_direction(record({noise, noise, noise, noise}), "processed-live");
  EXPECT_EQ(e.angle_degrees, 0.0);
  EXPECT_EQ(e.lag_consistency, 1.0);
  EXPECT_EQ(e.confidence, 1.0);
  EXPECT_FALSE(e.low_confidence);
  EXPECT_EQ(e.samples_source, "processed-live");
}

TEST(EstimateDirection, SilentConstantAndShortChannelsBitExactness) {
  for (const auto& channel : {std::vector<double>(1000, 0.0), std::vector<double>(1000, 0.25),
                              test::white_noise(15, 0.5, 1)}) {
    const DirectionEstimate e = estimate_direction(record({channel, channel, channel, channel}), "processed");
    EXPECT_EQ(e.lag_samples_ch0_to_ch3, -8);  // every score is 0: the first lag examined
    EXPECT_EQ(e.lag_consistency, 0.5);         // chained -12 against direct -8
    EXPECT_EQ(e.angle_degrees, -90.0);
    EXPECT_EQ(e.confidence, 0.1);
    EXPECT_TRUE(e.low_confidence);
    EXPECT_EQ(e.peak_correlation, 0.0);
  }
}

TEST(EstimateDirection, DefaultsWhenItCannotRun) {
  const std::vector<double> noise = test::white_noise(100, 0.5, 1);
  for (const WavData& w : {record({noise, noise, noise}), record({{}, noise, noise, noise}), record({})}) {
    const DirectionEstimate e = estimate_direction(w, "label");
    EXPECT_EQ(e.samples_source, "label");
    EXPECT_EQ(e.method, "processed multi-pair centered cross-correlation");
    EXPECT_EQ(e.angle_degrees, 0.0);
    EXPECT_EQ(e.confidence, 0.0);
    EXPECT_TRUE(e.low_confidence);
  }
}

TEST(BestLag, EdgeCases) {
  const std::vector<double> a = test::white_noise(500, 0.5, 5);
  const LagResult zero = best_lag(a, test::shifted(a, 2), 0);
  EXPECT_EQ(zero.lag, 0);
  const LagResult empty = best_lag(a, {}, 4);
  EXPECT_EQ(empty.lag, -4);
  EXPECT_EQ(empty.confidence, 0.0);

  // An inverted copy correlates at -1 at lag 0; the best is some small positive
  // score elsewhere, and a negative-only pair has peak 0.
  std::vector<double> inverted(a.size());
  for (std::size_t i = 0; i < a.size(); ++i) inverted[i] = -a[i];
  const LagResult neg = best_lag(a, inverted, 0);
  EXPECT_EQ(neg.peak_correlation, 0.0);
  EXPECT_EQ(neg.confidence, 0.0);

  // Different lengths use the shorter one for both, also for the bound on i + L.
  const std::vector<double> longer = test::shifted(a, 3);
  std::vector<double> b(longer.begin(), longer.begin() + 100);
  const LagResult diff = best_lag(a, b, 8);
  EXPECT_EQ(diff.lag, 3);
  EXPECT_GT(diff.peak_correlation, 0.999);
  EXPECT_EQ(best_lag(b, a, 8).lag, -3);

  // Sixteen overlapping pairs are enough, fifteen are not.
  const std::vector<double> s = test::white_noise(17, 0.5, 9);
  EXPECT_EQ(best_lag(s, s, 1).lag, 0);
  EXPECT_GT(best_lag(s, s, 1).second_correlation, -1.0);
  const std::vector<double> t(s.begin(), s.begin() + 16);
  EXPECT_EQ(best_lag(t, t, 1).lag, 0);
  const LagResult only_zero = best_lag(t, t, 1);
  EXPECT_EQ(only_zero.second_correlation, 0.0);  // lags +-1 have 15 pairs and score 0
}

TEST(BestLag, TieGoesToTheMostNegativeLag) {
  // A period-4 signal correlates equally at lags -4, 0 and +4.
  std::vector<double> p;
  for (int i = 0; i < 400; ++i) p.push_back(std::vector<double>{1, 0, -1, 0}[i % 4]);
  const LagResult r = best_lag(p, p, 4);
  EXPECT_EQ(r.lag, -4);
  EXPECT_EQ(r.peak_correlation, r.second_correlation);
  EXPECT_EQ(r.confidence, 0.7 * r.peak_correlation);
}

}  // namespace
}  // namespace sonderlark
