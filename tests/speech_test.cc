#include <gtest/gtest.h>

#include <cmath>

#include "audio/array_sim.h"
#include "audio/wav.h"
#include "dsp/beam.h"
#include "dsp/direction.h"
#include "support.h"
#include "util/process.h"
#include "util/text.h"

namespace sonderlark {
namespace {

// Speech from espeak-ng, resampled to 16 kHz mono by sox.
std::vector<double> render_speech(const test::TempDir& tmp) {
  const CommandResult made = run_command(
      "espeak-ng -w " + shell_quote(tmp.path("say.wav")) +
      " 'The quick brown fox jumps over the lazy dog, and the array hears it from one side.' && sox " +
      shell_quote(tmp.path("say.wav")) + " -r 16000 -b 16 -c 1 " + shell_quote(tmp.path("speech.wav")) + " gain -6");
  EXPECT_EQ(made.exit_code, 0) << made.output;
  return read_wav(tmp.path("speech.wav")).samples[0];
}

// Start of the loudest one-second window.
std::size_t loudest_second(const std::vector<double>& x) {
  std::size_t best = 0;
  double best_energy = -1.0;
  for (std::size_t start = 0; start + 16000 <= x.size(); start += 1600) {
    double e = 0.0;
    for (std::size_t i = start; i < start + 16000; ++i) e += x[i] * x[i];
    if (e > best_energy) {
      best_energy = e;
      best = start;
    }
  }
  return best;
}

// Best centred correlation with the clean speech over shifts of -8..8.
double best_correlation(const std::vector<double>& clean, const std::vector<double>& x) {
  return best_lag(clean, x, 8).peak_correlation;
}

TEST(Speech, EveryLagFromMinus8To8AndTheBeamBeatsEachChannel) {
  test::TempDir tmp;
  const std::vector<double> speech = render_speech(tmp);
  ASSERT_GT(speech.size(), 24000u);
  const std::size_t start = loudest_second(speech);
  const std::vector<double> clean(speech.begin() + static_cast<std::ptrdiff_t>(start),
                                  speech.begin() + static_cast<std::ptrdiff_t>(start + 16000));
  for (int lag = -8; lag <= 8; ++lag) {
    SCOPED_TRACE(lag);
    ArraySimulation sim;
    sim.end_to_end_lag = lag;  // channels 1 and 2 get fractional delays
    sim.noise_rms = 0.02;
    sim.seed = static_cast<uint32_t>(100 + lag);
    const auto channels = simulate_array(speech, sim);
    WavData excerpt;
    excerpt.sample_rate = 16000;
    excerpt.channels = 4;
    excerpt.bits_per_sample = 32;
    for (const auto& ch : channels) {
      excerpt.samples.emplace_back(ch.begin() + static_cast<std::ptrdiff_t>(start),
                                   ch.begin() + static_cast<std::ptrdiff_t>(start + 16000));
    }
    const DirectionEstimate e = estimate_direction(excerpt, "processed");
    EXPECT_EQ(e.lag_samples_ch0_to_ch3, lag);
    const BeamformResult beam = beamform_delay_and_sum(excerpt, e);
    const double beam_corr = best_correlation(clean, beam.samples);
    for (int c = 0; c < 4; ++c) {
      EXPECT_GT(beam_corr, best_correlation(clean, excerpt.samples[static_cast<std::size_t>(c)])) << "channel " << c;
    }
  }
}

}  // namespace
}  // namespace sonderlark
