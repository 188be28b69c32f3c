// The processing stages on a table of hand-picked inputs, every number
// written out in full and held against tests/golden/stages.txt; then the
// streamed one-shot analysis (the block path) against the whole-record calls
// on a table of recordings, which must give the same bits; then speech from
// every direction. The inputs sit on the rules' edges: thresholds, block
// counts, the 16-pair minimum, ties, silence, clipping, lags -8..8, channel
// counts, stream blocks and parts.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>

#include "analysis_text.h"
#include "audio/array_sim.h"
#include "support.h"
#include "util/process.h"
#include "util/text.h"

namespace sonderlark {
namespace {

using test::record;
using Channels = std::vector<std::vector<double>>;

std::string dump(const LagResult& r) {
  return "lag " + std::to_string(r.lag) + " peak " + num(r.peak_correlation) + " second " +
         num(r.second_correlation) + " confidence " + num(r.confidence) + "\n";
}

// Estimate, then the beam steered by it: what the one-shot run does.
std::string estimate_and_beam(const Channels& channels) {
  const WavData data = record(channels);
  const DirectionEstimate e = estimate_direction(data, "processed");
  return dump(e) + dump(beamform_delay_and_sum(data, e));
}

DirectionEstimate steer(int32_t lag, bool low = false) {
  return {.lag_samples_ch0_to_ch3 = lag, .low_confidence = low};
}

std::string gain(const Channels& channels, double db) {
  std::vector<std::string> warnings = {"earlier"};
  const WavData processed = apply_input_gain(record(channels), db, warnings);
  std::string out = "gain " + num(db) + " dB:";
  for (const auto& ch : processed.samples) out.append(1, ' ').append(nums(ch));
  out += "\n";
  for (const std::string& w : warnings) out += "  warning: " + w + "\n";
  return out;
}

struct Case {
  std::string name;
  std::function<std::string()> run;
};

std::vector<Case> cases() {
  const std::vector<double> x = test::white_noise(3000, 0.5, 4);
  const std::vector<double> zeros(100, 0.0);
  std::vector<Case> c;
  // Levels.
  c.push_back(Case{"levels: silent, empty, shorter than a block", [] {
    return dump(diagnose_channels(record({std::vector<double>(5000, 0.0), {}, {0.5, -0.25}}), "raw channel"));
  }});
  c.push_back(Case{"levels: silence and clipping thresholds, eleven channels", [] {
    std::vector<double> at_rms(16, 0.0);
    at_rms[0] = 0.0002;  // rms exactly 5e-05
    std::vector<double> below_rms = at_rms;
    below_rms.push_back(0.0);
    const double under = std::nextafter(0.0002, 0.0);
    Channels ch = {at_rms, below_rms, {0.0002, 0.0002}, {under, under}, {0.999}, {std::nextafter(0.999, 0.0), -0.5},
                   {-1.0}, {0.5}, {0.5}, {0.5}, {-1.0}};
    return dump(diagnose_channels(record(ch), "c"));
  }});
  c.push_back(Case{"levels: noise floor over 1..31 blocks of falling level", [] {
    Channels ch;
    for (int blocks : {1, 2, 9, 10, 19, 20, 21, 29, 30, 31}) {
      std::vector<double> v;
      for (int k = 0; k < blocks; ++k) v.insert(v.end(), 320, (blocks - k) * 0.01);
      v.insert(v.end(), 100, 0.0);  // a partial block: counts for the rms only
      ch.push_back(v);
    }
    return dump(diagnose_channels(record(ch), "c"));
  }});
  c.push_back(Case{"levels: block length at rates 0, 1, 49, 50, 100, negative", [] {
    std::vector<double> v;
    for (int i = 1; i <= 40; ++i) v.push_back((i % 2 ? 1 : -1) * i / 100.0);
    std::string out;
    for (int32_t rate : {0, 1, 49, 50, 100, -16000, INT32_MIN}) out += dump(diagnose_channels(record({v}, rate), "c"));
    return out + "speech " + std::to_string(detected_speech({0.003, 0.003})) +
           std::to_string(detected_speech({0.0, 0.0031})) + std::to_string(detected_speech({})) + "\n";
  }});
  // Gain.
  c.push_back(Case{"gain: clipping warnings name the clipped channels", [] {
    return gain({{0.001, -0.002}, {0.01}, {0.5, -0.5, 0.015, 0.0}, {0.0}}, 36.0) +
           gain({{0.9, 0.9}, {0.0}, {0.0}, {-0.9}}, 24.0) + gain({{0.99}}, 0.25) + gain({{}, {}, {}, {}}, 36.0) +
           gain({}, 36.0);
  }});
  c.push_back(Case{"gain: 0 dB is the identity; a sine's rms at -60..12 dB", [] {
    std::vector<double> sine;
    for (int i = 0; i < 16000; ++i) sine.push_back(0.1 * std::sin(2 * 3.141592653589793 * 1000 * i / 16000.0));
    std::string out = gain({test::white_noise(1000, 1.0, 1), {-1.0, 0.999999, -0.5}}, 0.0);
    out += "input: " + nums(test::white_noise(1000, 1.0, 1)) + "\n";
    std::vector<std::string> warnings;
    for (double db : {-60.0, -20.0, -6.0, 0.0, 6.0, 12.0}) {
      out += num(db) + " dB rms " + num(diagnose_channels(apply_input_gain(record({sine}), db, warnings), "c").rms[0]) +
             "\n";
    }
    return out;
  }});
  // Direction and beam.
  for (int lag = -8; lag <= 8; ++lag) {
    c.push_back(Case{"noise with end-to-end lag " + std::to_string(lag), [lag] { return estimate_and_beam(test::array_noise(lag, 4096, 0.5, 7)); }});
  }
  c.push_back(Case{"one-sample steps, both ways; identical channels", [] {
    const std::vector<double> n = test::white_noise(2048, 0.3, 3);
    return estimate_and_beam({n, test::shifted(n, 1), test::shifted(n, 2), test::shifted(n, 3)}) +
           estimate_and_beam({n, test::shifted(n, -1), test::shifted(n, -2), test::shifted(n, -3)}) +
           estimate_and_beam({n, n, n, n});
  }});
  c.push_back(Case{"silent, constant, 15 samples, three channels, empty channel 0, none", [] {
    const std::vector<double> n = test::white_noise(100, 0.5, 1);
    std::string out;
    for (const auto& ch : {std::vector<double>(1000, 0.0), std::vector<double>(1000, 0.25), test::white_noise(15, 0.5, 1)}) {
      out += estimate_and_beam({ch, ch, ch, ch});
    }
    return out + estimate_and_beam({n, n, n}) + estimate_and_beam({{}, n, n, n}) + estimate_and_beam({});
  }});
  c.push_back(Case{"lag search: zero range, empty, inverted, unequal lengths, 16 and 15 pairs, a tie", [x] {
    std::vector<double> inverted;
    for (double v : x) inverted.push_back(-v);
    const std::vector<double> later = test::shifted(x, 3);
    const std::vector<double> b(later.begin(), later.begin() + 100);
    const std::vector<double> s = test::white_noise(17, 0.5, 9);
    const std::vector<double> t(s.begin(), s.begin() + 16);
    std::vector<double> period;
    for (int i = 0; i < 400; ++i) period.push_back(std::vector<double>{1, 0, -1, 0}[i % 4]);
    return dump(best_lag(x, test::shifted(x, 2), 0)) + dump(best_lag(x, {}, 4)) + dump(best_lag(x, inverted, 0)) +
           dump(best_lag(x, b, 8)) + dump(best_lag(b, x, 8)) + dump(best_lag(s, s, 1)) + dump(best_lag(t, t, 1)) +
           dump(best_lag(period, period, 4));
  }});
  c.push_back(Case{"beam: steering tables for lags -8..8, four and five channels", [x] {
    std::string out;
    for (int32_t lag = -8; lag <= 8; ++lag) out += dump(beamform_delay_and_sum(record({x, x, x, x}), steer(lag)));
    return out + dump(beamform_delay_and_sum(record({x, x, x, x, x}), steer(2))) +
           dump(beamform_delay_and_sum(record({x, x, x, x, x}), steer(-2)));
  }});
  c.push_back(Case{"beam: means near the ends; fallback; two, one, silent, empty, none", [x, zeros] {
    const Channels ramps = {{1, 2, 3, 4, 5, 6}, {10, 20, 30, 40, 50, 60}, {100, 200, 300, 400, 500, 600},
                            {1000, 2000, 3000, 4000, 5000, 6000}};
    std::vector<double> ch0 = zeros;
    for (int i = 0; i < 8; ++i) ch0[static_cast<std::size_t>(i)] = 0.1 * (i + 1);
    return dump(beamform_delay_and_sum(record(ramps), steer(3))) + dump(beamform_delay_and_sum(record(ramps), steer(0))) +
           dump(beamform_delay_and_sum(record({x, test::shifted(x, 5), test::shifted(x, -7), test::shifted(x, 2)}),
                                       steer(8, true))) +
           dump(beamform_delay_and_sum(record({x, test::shifted(x, -3)}), steer(3))) +
           dump(beamform_delay_and_sum(record({x}), steer(3))) +
           dump(beamform_delay_and_sum(record({ch0, zeros, zeros, zeros}), DirectionEstimate{})) +
           dump(beamform_delay_and_sum(record({{}, {}, {}, {}}), steer(3))) + dump(beamform_delay_and_sum(record({}), steer(3)));
  }});
  return c;
}

TEST(Stages, EveryNumberMatchesTheGolden) {
  std::string out;
  for (const auto& [name, run] : cases()) out += "== " + name + "\n" + run();
  test::expect_golden("stages.txt", out);
}

// The literal mean, index by index, channel by channel.
std::vector<double> literal_beam(const Channels& ch, const std::vector<int32_t>& lags) {
  const int64_t n = ch.empty() ? 0 : static_cast<int64_t>(ch[0].size());
  std::vector<double> out;
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
    out.push_back(sum / count);
  }
  return out;
}

enum class Signal { kSource, kIndependent, kSilence, kLoud };

struct Recording {
  const char* name;
  int channels;
  std::size_t frames;
  Signal signal;
  double gain_db = 0.0;
  std::size_t block = kRecordingBlockFrames;  // frames per streamed block
  uint32_t rate = 16000;
  uint32_t bits = 32;
};

Channels make_channels(const Recording& r) {
  Channels channels;
  const std::vector<double> source = test::white_noise(r.frames, 0.3, 11);
  for (int k = 0; k < r.channels; ++k) {
    if (r.signal == Signal::kSource) {  // 6 samples apart end to end, and some noise of each channel's own
      std::vector<double> x = test::shifted(source, r.channels > 1 ? static_cast<int>(std::lround(6.0 * k / (r.channels - 1))) : 0);
      const std::vector<double> own = test::white_noise(r.frames, 0.01, 100 + k);
      for (std::size_t i = 0; i < x.size(); ++i) x[i] += own[i];
      channels.push_back(x);
    } else {
      channels.push_back(r.signal == Signal::kSilence ? std::vector<double>(r.frames, 0.0)
                         : r.signal == Signal::kLoud  ? test::white_noise(r.frames, 0.95, 300 + k)
                                                      : test::white_noise(r.frames, 0.2, 200 + k));
    }
  }
  return channels;
}

class Streamed : public ::testing::TestWithParam<Recording> {};

TEST_P(Streamed, SameBitsAsTheWholeRecordCalls) {
  const Recording& r = GetParam();
  test::TempDir tmp;
  const Channels channels = make_channels(r);
  test::write_file(tmp.path("whole.wav"), test::pcm_wav(channels, r.rate, r.bits));
  const WavData input = read_wav(tmp.path("whole.wav"));
  const RecordingAnalysis whole = whole_record(input, r.gain_db);
  std::vector<std::string> ignored;  // the beam: also the literal mean of the processed channels
  EXPECT_EQ(whole.beam.samples, literal_beam(apply_input_gain(input, r.gain_db, ignored).samples, whole.beam.lags));
  const std::string expected = dump(whole);
  EXPECT_EQ(dump(streamed({tmp.path("whole.wav")}, r.gain_db, r.block)), expected);

  // The same recording in three parts, cut at a third and at the last frame
  // (parts may be empty), reads as one.
  std::vector<std::string> parts;
  const std::size_t cuts[] = {0, r.frames / 3, r.frames > 0 ? r.frames - 1 : 0, r.frames};
  for (int p = 0; p < 3; ++p) {
    Channels part;
    for (const auto& channel : channels) part.emplace_back(channel.begin() + cuts[p], channel.begin() + cuts[p + 1]);
    parts.push_back(tmp.path("part-0" + std::to_string(p + 1) + ".wav"));
    test::write_file(parts.back(), test::pcm_wav(part, r.rate, r.bits));
  }
  EXPECT_EQ(dump(streamed(parts, r.gain_db, r.block)), expected) << "in parts";
}

// The guided beam needs 4+ channels and a confident estimate; everything
// else takes the fallback, with searches of its own for each channel.
const Recording kRecordings[] = {
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

INSTANTIATE_TEST_SUITE_P(Recordings, Streamed, ::testing::ValuesIn(kRecordings),
                         [](const ::testing::TestParamInfo<Recording>& info) { return std::string(info.param.name); });

TEST(StreamedParts, APartOfAnotherFormatIsNamed) {
  test::TempDir tmp;
  test::write_file(tmp.path("a-01.wav"), test::pcm_wav(test::array_noise(3, 500, 0.3, 5)));
  test::write_file(tmp.path("a-02.wav"), test::pcm_wav(test::array_noise(3, 500, 0.3, 5), 48000));
  try {
    open_wav_source({tmp.path("a-01.wav"), tmp.path("a-02.wav")});
    FAIL() << "parts of two rates were accepted";
  } catch (const std::runtime_error& e) {
    EXPECT_EQ(std::string(e.what()),
              "split capture part " + tmp.path("a-02.wav") + " differs in format from " + tmp.path("a-01.wav"));
  }
}

// Speech from espeak-ng, resampled to 16 kHz mono by sox.
std::vector<double> render_speech(const test::TempDir& tmp) {
  const CommandResult made = run_command(
      "espeak-ng -w " + shell_quote(tmp.path("say.wav")) +
      " 'The quick brown fox jumps over the lazy dog, and the array hears it from one side.' && sox " +
      shell_quote(tmp.path("say.wav")) + " -r 16000 -b 16 -c 1 " + shell_quote(tmp.path("speech.wav")) + " gain -6");
  EXPECT_EQ(made.exit_code, 0) << made.output;
  return read_wav(tmp.path("speech.wav")).samples[0];
}

// The whole utterance from each direction: the estimate finds every lag,
// and the beam is nearer the clean speech than any one microphone.
TEST(Speech, EveryLagFromMinus8To8AndTheBeamBeatsEachChannel) {
  test::TempDir tmp;
  const std::vector<double> speech = render_speech(tmp);
  ASSERT_GT(speech.size(), 24000u);
  for (int lag = -8; lag <= 8; ++lag) {
    SCOPED_TRACE(lag);
    ArraySimulation sim;
    sim.end_to_end_lag = lag;  // channels 1 and 2 get fractional delays
    sim.noise_rms = 0.02;
    sim.seed = static_cast<uint32_t>(100 + lag);
    const WavData heard = test::record(simulate_array(speech, sim));
    const DirectionEstimate e = estimate_direction(heard, "processed");
    EXPECT_EQ(e.lag_samples_ch0_to_ch3, lag);
    const double beam = best_lag(speech, beamform_delay_and_sum(heard, e).samples, 8).peak_correlation;
    for (const std::vector<double>& channel : heard.samples) EXPECT_GT(beam, best_lag(speech, channel, 8).peak_correlation);
  }
}

}  // namespace
}  // namespace sonderlark
