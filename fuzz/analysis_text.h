// What the analysis stages give, written out with every number in full and
// long runs of samples hashed, so that equal texts are equal bits; and the
// one-shot analysis of a recording both ways: the whole-record calls one after
// another, and the streamed passes (the block path). The fuzz target and the
// tests hold the two ways against each other, and the stages against goldens.
#pragma once

#include <bit>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "audio/wav.h"
#include "dsp/beam.h"
#include "dsp/diagnostics.h"
#include "dsp/direction.h"
#include "dsp/gain.h"
#include "dsp/recording.h"

namespace sonderlark {

inline std::string num(double v) {
  char text[40];
  std::snprintf(text, sizeof text, "%.17g", v);
  return text;
}

// Up to eight values in full, then the count and a hash of every bit.
inline std::string nums(const std::vector<double>& v) {
  std::string out = "[";
  uint64_t hash = 1469598103934665603ULL;
  for (std::size_t i = 0; i < v.size(); ++i) {
    if (i < 8) out += (i > 0 ? " " : "") + num(v[i]);
    hash = (hash ^ std::bit_cast<uint64_t>(v[i])) * 1099511628211ULL;
  }
  if (v.size() > 8) out += " ... n=" + std::to_string(v.size()) + " hash=" + std::to_string(hash);
  return out + "]";
}

inline std::string dump(const ChannelDiagnostics& d) {
  std::string out = "levels rms" + nums(d.rms) + " peak" + nums(d.peak) + " floor" + nums(d.noise_floor) + "\n";
  for (const std::string& w : d.warnings) out += "  warning: " + w + "\n";
  return out;
}

inline std::string dump(const DirectionEstimate& e) {
  return "direction lag " + std::to_string(e.lag_samples_ch0_to_ch3) + " angle " + num(e.angle_degrees) +
         " confidence " + num(e.confidence) + " peak " + num(e.peak_correlation) + " second " +
         num(e.second_correlation) + " consistency " + num(e.lag_consistency) + " low " +
         (e.low_confidence ? "yes" : "no") + " " + e.samples_source + " / " + e.method + "\n";
}

inline std::string dump(const BeamformResult& b) {
  std::string lags;
  for (int32_t l : b.lags) lags.append(1, ' ').append(std::to_string(l));
  return "beam lags" + lags + " / " + b.method + "\n  samples" + nums(b.samples) + "\n";
}

// Everything a one-shot run reports, the beam's samples included.
inline std::string dump(const RecordingAnalysis& a) {
  std::string out = "raw " + dump(a.raw);
  for (const std::string& w : a.gain_warnings) out += "gain warning: " + w + "\n";
  return out + "processed " + dump(a.processed) + dump(a.direction) + dump(a.beam) + "beamformed " + dump(a.beamformed);
}

// The whole-record calls, in the live loop's order.
inline RecordingAnalysis whole_record(const WavData& input, double gain_db) {
  RecordingAnalysis a;
  a.raw = diagnose_channels(input, "raw channel");
  const WavData processed = apply_input_gain(input, gain_db, a.gain_warnings);
  a.processed = diagnose_channels(processed, "processed channel");
  a.direction = estimate_direction(processed, "processed");
  a.beam = beamform_delay_and_sum(processed, a.direction);
  a.beamformed = diagnose_channels({input.sample_rate, 1, 16, {a.beam.samples}}, "beamformed channel");
  return a;
}

// The block path: the estimate hands its own channel 0 / 3 search to the beam.
inline RecordingAnalysis streamed(const std::vector<std::string>& paths, double gain_db, std::size_t block) {
  std::vector<double> beam;
  RecordingAnalysis a = analyse_recording(
      frames_of(open_wav_source(paths)), gain_db,
      [&beam](const double* s, std::size_t n) { beam.insert(beam.end(), s, s + n); }, {}, block);
  a.beam.samples = beam;
  return a;
}

}  // namespace sonderlark
