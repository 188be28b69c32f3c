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
