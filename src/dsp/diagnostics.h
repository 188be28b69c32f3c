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

// Measures rms, peak and noise floor of each of `data.channels` channels and
// flags silent or clipping ones with lines that start with `label`. Empty
// channels measure 0.0 and count as silent; 0 channels give an empty record.
// The noise-floor block is sample_rate / 50 samples (at least 1); a channel
// shorter than one block has its rms as noise floor.
ChannelDiagnostics diagnose_channels(const WavData& data, const std::string& label);

// Processed levels strictly above this on any channel count as speech.
constexpr double kSpeechRmsThreshold = 0.003;

// True when any entry of `processed_rms` is strictly above the speech threshold.
bool detected_speech(const std::vector<double>& processed_rms);

// Logs "<title> diagnostics:" and one line per channel with 8 decimals.
void log_diagnostics(Logger& logger, const std::string& title, const ChannelDiagnostics& diagnostics);

}  // namespace sonderlark
