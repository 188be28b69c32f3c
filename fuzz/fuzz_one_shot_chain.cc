// The reader followed by every signal stage a one-shot run applies to what it
// reads: no header (channel count, rate, length) may crash or hang the chain.
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "audio/wav.h"
#include "dsp/beam.h"
#include "dsp/gain.h"
#include "dsp/diagnostics.h"
#include "dsp/direction.h"
#include "dsp/recording.h"
#include "fuzz_check.h"
#include "util/unique_fd.h"

#include <sys/mman.h>
#include <unistd.h>

using namespace sonderlark;

namespace {

bool same_bits(const std::vector<double>& a, const std::vector<double>& b) {
  return a.size() == b.size() && (a.empty() || std::memcmp(a.data(), b.data(), a.size() * sizeof(double)) == 0);
}

bool same_levels(const ChannelDiagnostics& a, const ChannelDiagnostics& b) {
  return same_bits(a.rms, b.rms) && same_bits(a.peak, b.peak) && same_bits(a.noise_floor, b.noise_floor) &&
         a.warnings == b.warnings;
}

bool same_estimate(const DirectionEstimate& a, const DirectionEstimate& b) {
  return same_bits({a.angle_degrees, a.confidence, a.peak_correlation, a.second_correlation, a.lag_consistency},
                   {b.angle_degrees, b.confidence, b.peak_correlation, b.second_correlation, b.lag_consistency}) &&
         a.lag_samples_ch0_to_ch3 == b.lag_samples_ch0_to_ch3 && a.method == b.method &&
         a.samples_source == b.samples_source && a.low_confidence == b.low_confidence;
}

// The same bytes as a file, analysed as the one-shot run streams it, in
// blocks of `block` frames.
RecordingAnalysis streamed(const uint8_t* data, size_t size, double gain_db, std::size_t block,
                           std::vector<double>& beam) {
  const UniqueFd fd(memfd_create("fuzz.wav", MFD_CLOEXEC));
  if (!fd.valid()) std::abort();
  for (size_t done = 0; done < size;) {
    const ssize_t n = write(fd.get(), data + done, size - done);
    if (n <= 0) std::abort();
    done += static_cast<size_t>(n);
  }
  const WavSource source = open_wav_source({"/proc/self/fd/" + std::to_string(fd.get())});
  return analyse_recording(
      frames_of(source), gain_db, [&beam](const double* s, std::size_t n) { beam.insert(beam.end(), s, s + n); }, {},
      block);
}

}  // namespace

// The test suite builds this file under another entry name to replay the corpus.
#ifndef FUZZ_ENTRY
#define FUZZ_ENTRY LLVMFuzzerTestOneInput
#endif

extern "C" int FUZZ_ENTRY(const uint8_t* data, size_t size) {
  WavData input;
  try {
    input = parse_wav({data, size}, "fuzz.wav");
  } catch (const std::runtime_error& e) {
    if (!is_reader_message(e.what())) std::abort();
    return 0;
  }
  check_wav_invariants(input);
  // The last byte picks a gain from -60 to +36 dB, so clipping paths run too.
  const double gain_db = size > 0 ? -60.0 + (data[size - 1] % 97) : 0.0;

  // The whole-record stages, one after another.
  const ChannelDiagnostics raw = diagnose_channels(input, "raw channel");
  const std::size_t m = static_cast<std::size_t>(input.channels);
  const std::size_t frames = input.samples[0].size();
  const int32_t sample_rate = input.sample_rate;
  std::vector<std::string> warnings;
  const WavData processed = apply_input_gain(input, gain_db, warnings);
  const ChannelDiagnostics levels = diagnose_channels(processed, "processed channel");
  const DirectionEstimate direction = estimate_direction(processed, "processed");
  const BeamformResult beam = beamform_delay_and_sum(processed, direction);

  const ChannelDiagnostics beam_levels = diagnose_channels({sample_rate, 1, 16, {beam.samples}}, "beamformed channel");

  if (raw.rms.size() != m || levels.peak.size() != m || beam_levels.rms.size() != 1) std::abort();
  if (beam.lags.size() != m || beam.samples.size() != frames) std::abort();
  for (double v : beam.samples) {
    if (!(v >= -1.0 && v <= 1.0)) std::abort();
  }
  if (!(direction.confidence >= 0.0 && direction.confidence <= 1.0)) std::abort();
  if (!(direction.angle_degrees >= -90.0 && direction.angle_degrees <= 90.0)) std::abort();
  for (double f : raw.noise_floor) {
    if (!(f >= 0.0 && std::isfinite(f))) std::abort();
  }

  // The streamed analysis gives the same bits, in blocks as small as one
  // frame (the first byte picks the size).
  std::vector<double> streamed_beam;
  const RecordingAnalysis a = streamed(data, size, gain_db, 1 + data[0] % 97, streamed_beam);
  if (!same_levels(a.raw, raw) || a.gain_warnings != warnings || !same_levels(a.processed, levels) ||
      !same_estimate(a.direction, direction) || a.beam.lags != beam.lags || a.beam.method != beam.method ||
      !same_bits(streamed_beam, beam.samples) || !same_levels(a.beamformed, beam_levels)) {
    std::abort();
  }
  return 0;
}
