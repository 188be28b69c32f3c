#include <gtest/gtest.h>
#include <cmath>

#include "dsp/diagnostics.h"
#include "support.h"

namespace sonderlark {
namespace {

WavData record(int32_t rate, std::vector<std::vector<double>> channels) { return test::record(std::move(channels), rate, 16); }

TEST(DiagnoseChannels, SilentEmptyAndShortChannels) {
  const ChannelDiagnostics d =
      diagnose_channels(record(16000, {std::vector<double>(5000, 0.0), {}, {0.5, -0.25}}), "raw channel");
  EXPECT_EQ(d.rms, (std::vector<double>{0.0, 0.0, std::sqrt((0.25 + 0.0625) / 2)}));
  EXPECT_EQ(d.peak, (std::vector<double>{0.0, 0.0, 0.5}));
  EXPECT_EQ(d.noise_floor, d.rms);  // shorter than one 320-sample block: the rms
  EXPECT_EQ(d.warnings, (std::vector<std::string>{"raw channel 0 may be silent or dead",
                                                  "raw channel 1 may be silent or dead"}));
  EXPECT_TRUE(diagnose_channels(record(16000, {}), "x").rms.empty());
}

TEST(DiagnoseChannels, ThresholdsAtTheirExactBoundaries) {
  std::vector<double> at_rms_boundary(16, 0.0);
  at_rms_boundary[0] = 0.0002;  // rms = 0.0002 / 4 = 5e-05 exactly, peak 0.0002
  std::vector<double> below_rms = at_rms_boundary;
  below_rms.push_back(0.0);     // rms now below 5e-05
  std::vector<double> at_peak = {0.0002, 0.0002};
  const double under = std::nextafter(0.0002, 0.0);
  std::vector<double> below_peak = {under, under};
  const ChannelDiagnostics d = diagnose_channels(
      record(16000, {at_rms_boundary, below_rms, at_peak, below_peak, {0.999}, {std::nextafter(0.999, 0.0), -0.5}, {-1.0}}),
      "c");
  EXPECT_EQ(d.rms[0], 5e-05);
  EXPECT_EQ(d.warnings, (std::vector<std::string>{"c 1 may be silent or dead", "c 3 may be silent or dead",
                                                  "c 4 may be clipping", "c 6 may be clipping"}));
}

TEST(DiagnoseChannels, ChannelTenIsWrittenInDecimal) {
  std::vector<std::vector<double>> channels(11, std::vector<double>{0.5});
  channels[10] = {-1.0};
  EXPECT_EQ(diagnose_channels(record(16000, channels), "raw channel").warnings,
            std::vector<std::string>{"raw channel 10 may be clipping"});
}

// Noise floor over B-sample blocks of known levels: block k holds the
// constant level (blocks - k) x 0.01, so the quietest come last.
class NoiseFloorBlocks : public testing::TestWithParam<int> {};

TEST_P(NoiseFloorBlocks, MeanOfTheQuietestTenthWithinTolerance) {
  const int blocks = GetParam();
  std::vector<double> x;
  for (int k = 0; k < blocks; ++k) x.insert(x.end(), 320, (blocks - k) * 0.01);
  x.insert(x.end(), 100, 0.0);  // a partial block: counts for rms, not for the floor
  const ChannelDiagnostics d = diagnose_channels(record(16000, {x}), "c");
  const int quiet = std::max(blocks / 10, 1);
  double expected = 0.0;
  for (int k = 1; k <= quiet; ++k) expected += k * 0.01;
  expected /= quiet;
  // A block's rms is sqrt(sum of 320 equal squares / 320): exact up to rounding.
  EXPECT_NEAR(d.noise_floor[0], expected, 1e-15);
  EXPECT_EQ(quiet, blocks < 20 ? 1 : blocks < 30 ? 2 : 3);
}

INSTANTIATE_TEST_SUITE_P(Counts, NoiseFloorBlocks, testing::Values(1, 2, 9, 10, 19, 20, 21, 29, 30, 31));

TEST(DiagnoseChannels, TinyAndNegativeRatesUseOneSampleBlocks) {
  // Block of one sample: the floor is the mean |x| of the quietest tenth.
  std::vector<double> x;
  for (int i = 1; i <= 40; ++i) x.push_back((i % 2 ? 1 : -1) * i / 100.0);
  for (int32_t rate : {0, 1, 49, -16000, INT32_MIN}) {
    SCOPED_TRACE(rate);
    EXPECT_NEAR(diagnose_channels(record(rate, {x}), "c").noise_floor[0], (0.01 + 0.02 + 0.03 + 0.04) / 4, 1e-15);
  }
  // 50 Hz: still one sample per block; 100 Hz: two.
  EXPECT_NEAR(diagnose_channels(record(100, {x}), "c").noise_floor[0],
              (std::sqrt((0.0001 + 0.0004) / 2) + std::sqrt((0.0009 + 0.0016) / 2)) / 2, 1e-15);
}

TEST(LogDiagnostics, TitleAndOneLinePerChannel) {
  ChannelDiagnostics d;
  d.rms = {0.012345678, 1.0};
  d.peak = {0.25, 0.5};
  d.noise_floor = {0.000512, 0.0};
  Logger logger;
  testing::internal::CaptureStdout();
  log_diagnostics(logger, "raw 4-channel levels (unmodified capture)", d);
  log_diagnostics(logger, "empty", ChannelDiagnostics{});
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "raw 4-channel levels (unmodified capture) diagnostics:\n"
            "  channel 0: rms=0.01234568, peak=0.25000000, noise_floor=0.00051200\n"
            "  channel 1: rms=1.00000000, peak=0.50000000, noise_floor=0.00000000\n"
            "empty diagnostics:\n");
}

}  // namespace
}  // namespace sonderlark
