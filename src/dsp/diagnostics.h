#pragma once

#include <string>
#include <vector>

#include "audio/wav.h"
#include "util/logger.h"

namespace sonderlark {

// Levels of every channel, full scale 1.0; entry c describes samples[c].
struct ChannelDiagnostics {
  std::vector<double> rms;          // root mean square of the whole channel
  std::vector<double> peak;         // largest |sample|
  std::vector<double> noise_floor;  // mean RMS of the quietest tenth of the 20 ms blocks
  std::vector<std::string> warnings;  // "<label> <c> may be silent or dead" / "... may be clipping"
};

constexpr double kSilenceRmsThreshold = 5e-05;     // rms strictly below: silent
constexpr double kSilencePeakThreshold = 0.0002;   // peak strictly below: silent
constexpr double kClippingPeakThreshold = 0.999;   // peak at or above: clipping

// Levels of a recording that arrives in consecutive pieces: per channel
// the running sums, the level of the block in progress and the quietest
// block levels so far (a tenth of the blocks: that is all the noise floor
// averages). The noise-floor block is sample_rate / 50 samples (at least
// 1); a trailing partial block is left out, and a recording shorter than
// one block has its rms as noise floor. Empty channels measure 0.0.
struct LevelMeter {
  std::size_t channels = 0;
  std::size_t block = 1;  // noise-floor block
  uint64_t frames = 0;    // the whole recording's length, known in advance
  uint64_t seen = 0;
  std::size_t quiet = 1;  // how many of the quietest blocks the floor averages
  std::vector<double> total;
  std::vector<double> peak;
  std::vector<double> block_sum;
  std::vector<std::vector<double>> quietest;  // per channel, a max-heap
};

LevelMeter start_levels(int32_t channels, int32_t sample_rate, uint64_t frames);

// Adds the next `count` frames: channel c's at x[c][0 .. count).
void add_levels(LevelMeter& meter, const double* const* x, std::size_t count);

// The measures, with a warning line starting with `label` for each silent
// or clipping channel.
ChannelDiagnostics finish_levels(const LevelMeter& meter, const std::string& label);

// The levels of each of `data.channels` channels of a whole record, each
// fed to a meter at once; a missing channel measures as empty. 0 channels
// give an empty record.
ChannelDiagnostics diagnose_channels(const WavData& data, const std::string& label);

// Processed levels strictly above this on any channel count as speech.
constexpr double kSpeechRmsThreshold = 0.003;

// True when any entry of `processed_rms` is strictly above the speech threshold.
bool detected_speech(const std::vector<double>& processed_rms);

// Level in dBFS of an rms value (full scale 1.0); -120 for silence.
double level_dbfs(double rms);

// Logs "<title> diagnostics:" and one line per channel with 8 decimals.
void log_diagnostics(Logger& logger, const std::string& title, const ChannelDiagnostics& diagnostics);

}  // namespace sonderlark
