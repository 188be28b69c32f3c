// The streamed one-shot analysis against the whole-record stages: every
// number and every beam sample must be the same bits, whatever the channel
// count, the length against the stages' boundaries (16 overlapping pairs,
// 20 ms noise-floor blocks, a tenth of them), the stream's block size, or
// how the recording is split into parts.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdio>

#include "dsp/gain.h"
#include "dsp/diagnostics.h"
#include "dsp/recording.h"
#include "support.h"

namespace sonderlark {
namespace {

enum class Signal { kSource, kIndependent, kSilence, kLoud };

struct Case {
  const char* name;
  int channels;
  std::size_t frames;
  Signal signal;
  double gain_db = 0.0;
  std::size_t block = kRecordingBlockFrames;  // frames per streamed block
  uint32_t rate = 16000;
  uint32_t bits = 32;
};

std::vector<std::vector<double>> make_channels(const Case& c) {
  std::vector<std::vector<double>> channels;
  const std::vector<double> source = test::white_noise(c.frames, 0.3, 11);
  for (int k = 0; k < c.channels; ++k) {
    switch (c.signal) {
      case Signal::kSource:  // a source 6 samples apart end to end, some noise of each channel's own
      {
        std::vector<double> x = test::shifted(source, c.channels > 1 ? static_cast<int>(std::lround(6.0 * k / (c.channels - 1))) : 0);
        const std::vector<double> own = test::white_noise(c.frames, 0.01, 100 + k);
        for (std::size_t i = 0; i < x.size(); ++i) x[i] += own[i];
        channels.push_back(x);
        break;
      }
      case Signal::kIndependent: channels.push_back(test::white_noise(c.frames, 0.2, 200 + k)); break;
      case Signal::kSilence: channels.push_back(std::vector<double>(c.frames, 0.0)); break;
      case Signal::kLoud: channels.push_back(test::white_noise(c.frames, 0.95, 300 + k)); break;
    }
  }
  return channels;
}

std::string bits(double x) {
  char text[48];
  std::snprintf(text, sizeof text, " %a", x);
  return text;
}

std::string dump(const ChannelDiagnostics& d) {
  std::string out;
  for (std::size_t c = 0; c < d.rms.size(); ++c) out += bits(d.rms[c]) + bits(d.peak[c]) + bits(d.noise_floor[c]);
  for (const std::string& w : d.warnings) out += " | " + w;
  return out + "\n";
}

std::string dump(const DirectionEstimate& e) {
  return bits(e.angle_degrees) + bits(e.confidence) + " " + std::to_string(e.lag_samples_ch0_to_ch3) +
         bits(e.peak_correlation) + bits(e.second_correlation) + bits(e.lag_consistency) + " " + e.method + " " +
         e.samples_source + (e.low_confidence ? " low\n" : " confident\n");
}

// Everything a one-shot run reports, and the beam's bit patterns.
std::string dump(const ChannelDiagnostics& raw, const std::vector<std::string>& gain_warnings,
                 const ChannelDiagnostics& processed, const DirectionEstimate& direction,
                 const BeamformResult& beam, const std::vector<double>& beam_samples,
                 const ChannelDiagnostics& beamformed) {
  std::string out = "raw" + dump(raw) + "processed" + dump(processed) + "direction" + dump(direction);
  for (const std::string& w : gain_warnings) out += "gain | " + w + "\n";
  out += "beam " + beam.method + " lags";
  for (int32_t lag : beam.lags) out += " " + std::to_string(lag);
  out += "\nbeamformed" + dump(beamformed);
  uint64_t hash = 1469598103934665603ull;  // FNV-1a over the samples' bits
  for (double v : beam_samples) hash = (hash ^ std::bit_cast<uint64_t>(v)) * 1099511628211ull;
  return out + "beam samples " + std::to_string(beam_samples.size()) + " hash " + std::to_string(hash) + "\n";
}

// The whole-record stages, as the live loop runs them, on the decoded file.
std::string whole_record(const std::string& path, double gain_db) {
  const WavData input = read_wav(path);
  std::vector<std::string> gain_warnings;
  const WavData processed = apply_input_gain(input, gain_db, gain_warnings);
  const DirectionEstimate direction = estimate_direction(processed, "processed");
  const BeamformResult beam = beamform_delay_and_sum(processed, direction);
  const ChannelDiagnostics beamformed =
      diagnose_channels(test::record({beam.samples}, input.sample_rate, 16), "beamformed channel");
  return dump(diagnose_channels(input, "raw channel"), gain_warnings,
              diagnose_channels(processed, "processed channel"), direction, beam, beam.samples, beamformed);
}

std::string streamed(const std::vector<std::string>& paths, double gain_db, std::size_t block) {
  const WavSource source = open_wav_source(paths);
  std::vector<double> beam;
  const RecordingAnalysis a = analyse_recording(
      frames_of(source), gain_db, [&beam](const double* s, std::size_t n) { beam.insert(beam.end(), s, s + n); }, {},
      block);
  return dump(a.raw, a.gain_warnings, a.processed, a.direction, a.beam, beam, a.beamformed);
}

class Streamed : public ::testing::TestWithParam<Case> {};

TEST_P(Streamed, SameBitsAsTheWholeRecordStages) {
  const Case& c = GetParam();
  test::TempDir tmp;
  const std::vector<std::vector<double>> channels = make_channels(c);
  test::write_file(tmp.path("whole.wav"), test::pcm_wav(channels, c.rate, c.bits));
  const std::string expected = whole_record(tmp.path("whole.wav"), c.gain_db);
  EXPECT_EQ(streamed({tmp.path("whole.wav")}, c.gain_db, c.block), expected);

  // The same recording in three parts, cut at a third and at the last frame
  // (parts may be empty), reads as one.
  std::vector<std::string> parts;
  const std::size_t cuts[] = {0, c.frames / 3, c.frames > 0 ? c.frames - 1 : 0, c.frames};
  for (int p = 0; p < 3; ++p) {
    std::vector<std::vector<double>> part;
    for (const auto& channel : channels) part.emplace_back(channel.begin() + cuts[p], channel.begin() + cuts[p + 1]);
    parts.push_back(tmp.path("part-0" + std::to_string(p + 1) + ".wav"));
    test::write_file(parts.back(), test::pcm_wav(part, c.rate, c.bits));
  }
  EXPECT_EQ(streamed(parts, c.gain_db, c.block), expected) << "in parts";
}

// The guided beam needs 4+ channels and a confident estimate; everything
// else takes the fallback, with searches of its own for each channel.
const Case kCases[] = {
    {"one_channel", 1, 1000, Signal::kIndependent},
    {"two_channels", 2, 1000, Signal::kSource},
    {"three_channels", 3, 1000, Signal::kSource},
    {"four_guided", 4, 5000, Signal::kSource},
    {"four_fallback", 4, 5000, Signal::kIndependent},
    {"five_guided", 5, 4000, Signal::kSource},
    {"six_fallback", 6, 3000, Signal::kIndependent},
    {"seven_guided", 7, 3000, Signal::kSource},
    {"eight_guided", 8, 3000, Signal::kSource},
    {"eight_fallback", 8, 3000, Signal::kIndependent},
    {"empty", 4, 0, Signal::kSource},
    {"one_frame", 4, 1, Signal::kSource},
    {"fifteen_pairs", 4, 15, Signal::kSource},
    {"sixteen_pairs", 4, 16, Signal::kSource},
    {"seventeen_pairs", 4, 17, Signal::kSource},
    {"lag8_has_sixteen", 4, 24, Signal::kSource},
    {"lag8_has_seventeen", 4, 25, Signal::kSource},
    {"short_of_a_noise_block", 4, 319, Signal::kSource},
    {"one_noise_block", 4, 320, Signal::kSource},
    {"one_block_and_one", 4, 321, Signal::kSource},
    {"nineteen_blocks", 4, 19 * 320 + 5, Signal::kSource},
    {"twenty_blocks", 4, 20 * 320, Signal::kSource},
    {"stream_block_less_one", 4, 63, Signal::kSource, 0.0, 64},
    {"stream_block", 4, 64, Signal::kSource, 0.0, 64},
    {"stream_block_and_one", 4, 65, Signal::kSource, 0.0, 64},
    {"blocks_smaller_than_the_lag", 4, 700, Signal::kSource, 0.0, 3},
    {"block_of_one_frame", 5, 200, Signal::kIndependent, 0.0, 1},
    {"default_block_and_eight", 4, kRecordingBlockFrames + 8, Signal::kSource},
    {"silence", 4, 2000, Signal::kSilence},
    {"clipping_with_gain", 4, 3000, Signal::kLoud, 12.0},
    {"gain_down", 4, 3000, Signal::kSource, -20.0, 100},
    {"sixteen_bit", 4, 2000, Signal::kSource, 6.0, 257, 16000, 16},
    {"rate_of_a_one_sample_block", 4, 500, Signal::kSource, 0.0, 77, 50},
    {"rate_with_blocks_longer_than_the_recording", 4, 500, Signal::kSource, 0.0, 16384, 48000},
};

INSTANTIATE_TEST_SUITE_P(Recordings, Streamed, ::testing::ValuesIn(kCases),
                         [](const ::testing::TestParamInfo<Case>& info) { return std::string(info.param.name); });

TEST(StreamedParts, APartOfAnotherFormatIsNamed) {
  test::TempDir tmp;
  const auto channels = test::array_noise(3, 500, 0.3, 5);
  test::write_file(tmp.path("a-01.wav"), test::pcm_wav(channels));
  test::write_file(tmp.path("a-02.wav"), test::pcm_wav(channels, 48000));
  try {
    open_wav_source({tmp.path("a-01.wav"), tmp.path("a-02.wav")});
    FAIL() << "parts of two rates were accepted";
  } catch (const std::runtime_error& e) {
    EXPECT_EQ(std::string(e.what()),
              "split capture part " + tmp.path("a-02.wav") + " differs in format from " + tmp.path("a-01.wav"));
  }
}

}  // namespace
}  // namespace sonderlark
