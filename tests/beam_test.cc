#include <gtest/gtest.h>

#include "dsp/beam.h"
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

}  // namespace
}  // namespace sonderlark
