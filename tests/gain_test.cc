#include <gtest/gtest.h>

#include <cmath>

#include "dsp/diagnostics.h"
#include "dsp/gain.h"
#include "support.h"

namespace sonderlark {
namespace {

using test::record;

TEST(ApplyInputGain, ZeroDbIsBitExactAndSilent) {
  const WavData raw = record({test::white_noise(1000, 1.0, 1), {-1.0, 0.999999, -0.5}});
  std::vector<std::string> warnings;
  const WavData processed = apply_input_gain(raw, 0.0, warnings);
  EXPECT_EQ(processed.samples, raw.samples);
  EXPECT_EQ(processed.sample_rate, 16000);
  EXPECT_EQ(processed.bits_per_sample, 32);
  EXPECT_TRUE(warnings.empty());
}

TEST(ApplyInputGain, ClippingWarningNamesOnlyClippedChannels) {
  const WavData raw = record({{0.001, -0.002}, {0.01}, {0.5, -0.5, 0.015, 0.0}, {0.0}});
  std::vector<std::string> warnings = {"earlier"};
  const WavData processed = apply_input_gain(raw, 36.0, warnings);
  ASSERT_EQ(warnings.size(), 2u);
  EXPECT_EQ(warnings[0], "earlier");
  EXPECT_EQ(warnings[1], "input gain 36.0 dB caused processed-signal clipping; ch2 clipped_samples=2");
  EXPECT_EQ(processed.samples[2][0], 1.0);
  EXPECT_EQ(processed.samples[2][1], -1.0);
  EXPECT_LT(processed.samples[2][2], 1.0);  // 0.015 x 63.1 = 0.947
  EXPECT_EQ(raw.samples[2][0], 0.5);        // the raw record is untouched
}

TEST(ApplyInputGain, WarningFormatsTheGivenDb) {
  const WavData raw = record({{0.9, 0.9}, {0.0}, {0.0}, {-0.9}});
  std::vector<std::string> warnings;
  apply_input_gain(raw, 24.0, warnings);
  EXPECT_EQ(warnings, std::vector<std::string>{
                          "input gain 24.0 dB caused processed-signal clipping; ch0 clipped_samples=2; "
                          "ch3 clipped_samples=1"});
  warnings.clear();
  apply_input_gain(record({{0.99}}), 0.25, warnings);  // printf rounding of the dB value
  EXPECT_EQ(warnings, std::vector<std::string>{"input gain 0.2 dB caused processed-signal clipping; ch0 clipped_samples=1"});
}

TEST(ApplyInputGain, EmptyRecordsPassThrough) {
  std::vector<std::string> warnings;
  EXPECT_TRUE(apply_input_gain(record({{}, {}, {}, {}}), 36.0, warnings).samples[0].empty());
  WavData none;
  none.channels = 0;
  EXPECT_EQ(apply_input_gain(none, 36.0, warnings).channels, 0);
  EXPECT_TRUE(warnings.empty());
}

TEST(ApplyInputGain, RmsScalesByTheDbFactorWithinTolerance) {
  // A sine of amplitude 0.1 has rms 0.1/sqrt(2); -20 dB is a factor of exactly
  // one tenth up to pow's rounding, hence the tolerance.
  std::vector<double> sine;
  for (int i = 0; i < 16000; ++i) sine.push_back(0.1 * std::sin(2 * 3.141592653589793 * 1000 * i / 16000.0));
  const WavData raw = record({sine});
  std::vector<std::string> warnings;
  for (double db : {-60.0, -20.0, -6.0, 0.0, 6.0, 12.0}) {
    SCOPED_TRACE(db);
    const double rms = diagnose_channels(apply_input_gain(raw, db, warnings), "c").rms[0];
    EXPECT_NEAR(rms, 0.1 / std::sqrt(2.0) * std::pow(10.0, db / 20.0), 1e-12);
  }
  EXPECT_TRUE(warnings.empty());
}

}  // namespace
}  // namespace sonderlark
