#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "live/live_mode.h"

namespace sonderlark {

// Every setting of one run; a new record holds the defaults.
struct Options {
  int32_t duration_seconds = 5;                   // one-shot capture length, s
  std::string device = "hw:1,0";                  // ALSA capture device for arecord
  std::string output_path = "build/sonderlark_raw.wav";  // raw 4-channel WAV, analysed afterwards
  std::string beamformed_path = "build/sonderlark_beamformed.wav";  // mono beam WAV
  std::string event_path = "build/sonderlark_event.json";  // one-shot event manifest
  std::string log_path = "build/sonderlark.log";  // text log; empty: no log file
  std::string input_wav_path;                     // existing WAV to analyse instead of capturing
  double input_gain_db = 0.0;                     // processing gain, dB
  bool skip_capture = false;                      // analyse without running arecord
  bool live = false;                              // live mode instead of the one-shot run
  int32_t live_duration_seconds = 0;              // live length, s; 0 runs until stopped
  int32_t live_chunk_frames = 1024;               // frames per live chunk
  std::string pcm_output_path = default_pcm_output_path();  // live PCM file or FIFO
  std::string event_output_path;                  // live status JSON; empty: live mode's default
};

// Fills `options` from argv[1..argc-1]. Nothing when the run goes on;
// otherwise the exit status to end with: 0 after printing the usage for
// --help or -h, 2 for a refused command line (after its message, if any,
// on standard error and the usage on standard output).
std::optional<int> parse_args(int argc, char** argv, Options& options);

// Writes the usage text for `program` to standard output.
void print_usage(const char* program);

}  // namespace sonderlark
