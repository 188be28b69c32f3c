#include <gtest/gtest.h>

#include "dsp/beam.h"
#include "dsp/direction.h"
#include "support.h"

namespace sonderlark {
namespace {

using test::record;

DirectionEstimate confident(int32_t lag) {
  DirectionEstimate d;
  d.low_confidence = false;
  d.lag_samples_ch0_to_ch3 = lag;
  return d;
}

const std::string kGuided = "direction-guided delay-and-sum from processed samples";
const std::string kFallback = "fallback channel-alignment delay-and-sum from processed samples";

TEST(Beamform, DirectionGuidedLagTables) {
  const std::vector<double> x = test::white_noise(64, 0.5, 1);
  const std::vector<std::vector<int32_t>> four = {{0, 0, 0, 0}, {0, 0, 1, 1}, {0, 1, 1, 2}, {0, 1, 2, 3}, {0, 1, 3, 4},
                                                 {0, 2, 3, 5}, {0, 2, 4, 6}, {0, 2, 5, 7}, {0, 3, 5, 8}};
  for (int32_t lag = -8; lag <= 8; ++lag) {
    SCOPED_TRACE(lag);
    std::vector<int32_t> expected = four[static_cast<std::size_t>(std::abs(lag))];
    if (lag < 0) {
      for (int32_t& v : expected) v = -v;
    }
    const BeamformResult b = beamform_delay_and_sum(record({x, x, x, x}), confident(lag));
    EXPECT_EQ(b.lags, expected);
    EXPECT_EQ(b.method, kGuided);
  }
  EXPECT_EQ(beamform_delay_and_sum(record({x, x, x, x, x}), confident(2)).lags, (std::vector<int32_t>{0, 1, 1, 2, 2}));
  EXPECT_EQ(beamform_delay_and_sum(record({x, x, x, x, x}), confident(-2)).lags,
            (std::vector<int32_t>{0, -1, -1, -2, -2}));
}

TEST(Beamform, MeanOfAlignedChannelsBitExactness) {
  const std::vector<std::vector<double>> ch = {{1, 2, 3, 4, 5, 6}, {10, 20, 30, 40, 50, 60},
                                              {100, 200, 300, 400, 500, 600}, {1000, 2000, 3000, 4000, 5000, 6000}};
  const BeamformResult b = beamform_delay_and_sum(record(ch), confident(3));
  EXPECT_EQ(b.lags, (std::vector<int32_t>{0, 1, 2, 3}));
  // i takes channel c at i + c; the last three outputs average fewer channels.
  EXPECT_EQ(b.samples, (std::vector<double>{(1 + 20 + 300 + 4000) / 4.0, (2 + 30 + 400 + 5000) / 4.0,
                                            (3 + 40 + 500 + 6000) / 4.0, (4 + 50 + 600) / 3.0, (5 + 60) / 2.0, 6.0}));
  const BeamformResult flat = beamform_delay_and_sum(record(ch), confident(0));
  EXPECT_EQ(flat.samples[0], (1 + 10 + 100 + 1000) / 4.0);
}

TEST(Beamform, FallbackAlignsEachChannelToChannelZero) {
  const std::vector<double> x = test::white_noise(3000, 0.5, 4);
  DirectionEstimate weak = confident(8);
  weak.low_confidence = true;
  const BeamformResult b = beamform_delay_and_sum(
      record({x, test::shifted(x, 5), test::shifted(x, -7), test::shifted(x, 2)}), weak);
  EXPECT_EQ(b.method, kFallback);
  EXPECT_EQ(b.lags, (std::vector<int32_t>{0, 5, -7, 2}));
  for (std::size_t i = 10; i + 10 < x.size(); ++i) ASSERT_EQ(b.samples[i], x[i]) << i;  // identical once aligned

  // Fewer than four channels never steer.
  const BeamformResult two = beamform_delay_and_sum(record({x, test::shifted(x, -3)}), confident(3));
  EXPECT_EQ(two.method, kFallback);
  EXPECT_EQ(two.lags, (std::vector<int32_t>{0, -3}));
  const BeamformResult one = beamform_delay_and_sum(record({x}), confident(3));
  EXPECT_EQ(one.lags, std::vector<int32_t>{0});
  EXPECT_EQ(one.samples, x);
}

TEST(Beamform, SilentChannelsAndEmptyInputs) {
  const std::vector<double> zeros(100, 0.0);
  std::vector<double> ch0 = zeros;
  for (int i = 0; i < 8; ++i) ch0[static_cast<std::size_t>(i)] = 0.1 * (i + 1);
  DirectionEstimate weak;
  const BeamformResult b = beamform_delay_and_sum(record({ch0, zeros, zeros, zeros}), weak);
  EXPECT_EQ(b.lags, (std::vector<int32_t>{0, -8, -8, -8}));
  for (int i = 0; i < 8; ++i) EXPECT_EQ(b.samples[static_cast<std::size_t>(i)], ch0[static_cast<std::size_t>(i)]);

  const BeamformResult no_samples = beamform_delay_and_sum(record({{}, {}, {}, {}}), confident(3));
  EXPECT_TRUE(no_samples.samples.empty());
  EXPECT_EQ(no_samples.lags, (std::vector<int32_t>{0, 1, 2, 3}));
  EXPECT_EQ(no_samples.method, kGuided);

  const BeamformResult none = beamform_delay_and_sum(record({}), confident(3));
  EXPECT_TRUE(none.samples.empty());
  EXPECT_TRUE(none.lags.empty());
  EXPECT_TRUE(none.method.empty());
}

// The literal mean of step 6, index by index, channel by channel.
std::vector<double> literal_beam(const std::vector<std::vector<double>>& ch, const std::vector<int32_t>& lags) {
  const int64_t n = static_cast<int64_t>(ch[0].size());
  std::vector<double> out(ch[0].size());
  for (int64_t i = 0; i < n; ++i) {
    double sum = 0.0;
    int count = 0;
    for (std::size_t c = 0; c < ch.size(); ++c) {
      const int64_t j = i + lags[c];
      if (j >= 0 && j < n) {
        sum += ch[c][static_cast<std::size_t>(j)];
        ++count;
      }
    }
    out[static_cast<std::size_t>(i)] = sum / count;
  }
  return out;
}

// The one-shot run and the live loop take channel 3's fallback alignment
// from the estimate they just made; that must never change the beam.
TEST(Beamform, OwnEstimateGivesTheSameBeam) {
  const std::vector<double> x = test::white_noise(1500, 0.5, 7);
  const std::vector<double> y = test::white_noise(1500, 0.5, 8);
  const std::vector<double> z = test::white_noise(1500, 0.5, 9);
  const std::vector<double> w = test::white_noise(1500, 0.5, 10);
  const std::vector<double> silent(1500, 0.0);
  const std::vector<std::vector<std::vector<double>>> inputs = {
      {x, test::shifted(x, 1), test::shifted(x, 2), test::shifted(x, 3)},   // confident: guided
      {x, y, z, test::shifted(x, -6)},                                      // weak: fallback, channel 3 found
      {x, y, z, w},                                                         // weak, nothing aligned
      {silent, silent, silent, silent},                                     // every lag -8
      {{x.begin(), x.begin() + 10}, {y.begin(), y.begin() + 10}, {z.begin(), z.begin() + 10}, {w.begin(), w.begin() + 10}},
      {x, y, z, test::shifted(x, 4), w},                                    // five channels
      {x, y, test::shifted(x, 2)},                                          // three: default estimate
      {{}, x, y, z},                                                        // empty channel 0: default estimate
  };
  for (std::size_t k = 0; k < inputs.size(); ++k) {
    SCOPED_TRACE(k);
    const WavData data = record(inputs[k]);
    std::optional<int32_t> end_to_end;
    const DirectionEstimate direction = estimate_direction(data, "processed", end_to_end);
    const BeamformResult expected = beamform_delay_and_sum(data, direction);
    const BeamformResult got = beamform_delay_and_sum(WavData(data), direction, end_to_end);
    EXPECT_EQ(end_to_end.has_value(), k < 6);  // four or more channels, channel 0 not empty
    EXPECT_EQ(got.lags, expected.lags);
    EXPECT_EQ(got.method, expected.method);
    EXPECT_EQ(got.samples, expected.samples);
    if (!inputs[k][0].empty()) {
      EXPECT_EQ(got.samples, literal_beam(inputs[k], got.lags));
    }
  }
  // The weak case above really did align channel 3 by its own search.
  std::optional<int32_t> end_to_end;
  const WavData weak = record(inputs[1]);
  const DirectionEstimate weak_estimate = estimate_direction(weak, "processed", end_to_end);
  EXPECT_EQ(end_to_end, -6);
  EXPECT_EQ(beamform_delay_and_sum(WavData(weak), weak_estimate, end_to_end).lags[3], -6);
}

}  // namespace
}  // namespace sonderlark
