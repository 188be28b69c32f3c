#pragma once

// sonderlark-doctor: checks an array and its surroundings before a run is
// trusted. Each check gives one Check; the program prints them in order.

#include <cstdint>
#include <string>
#include <vector>

#include "audio/wav.h"

namespace sonderlark {

struct DoctorOptions {
  std::string device = "hw:1,0";
  int32_t seconds = 5;  // length of the channel recording
  bool tap = false;     // interactive channel-order check
  std::string pcm_path;     // empty: the tool's default
  std::string status_path;  // empty: the tool's default
  bool json = false;
};

// Fills `options` from the command line; false (with `error` set, unless
// the line asked for --help) when it is refused.
bool parse_doctor_args(int argc, char** argv, DoctorOptions& options, std::string& error, bool& help);

void print_doctor_usage(const char* program);

// The outcome of one check: state "ok", "problem" or "skipped"; a one-line
// message, lines of detail, and what to do about a problem.
struct Check {
  std::string name;
  std::string state;
  std::string message;
  std::vector<std::string> details;
  std::string advice;
};

// What `arecord --dump-hw-params` lists for a device.
struct HardwareOffer {
  std::string formats;
  std::string rates;
  std::string channels;
};

HardwareOffer parse_hw_params(const std::string& dump);

// The device check from arecord's exit status and its combined output.
// `holders` names the processes holding the card's sound devices.
Check device_check(const std::string& device, int exit_code, const std::string& output,
                   const std::vector<std::string>& holders);

// Per channel: level, peak and noise floor in dBFS, clipped samples, DC offset.
struct ChannelMeasure {
  double level_dbfs = 0.0;
  double peak_dbfs = 0.0;
  double floor_dbfs = 0.0;
  int64_t clipped = 0;
  double dc_offset = 0.0;
};

std::vector<ChannelMeasure> measure_channels(const WavData& recording);

// Dead, clipping, much noisier (floor >= 10 dB over the median of the
// others) or far quieter (level >= 12 dB under the median of the others).
Check channels_check(const WavData& recording);

// The gain that puts the loudest peak at -6 dBFS, whole dB down, -60..+36.
Check gain_check(const WavData& recording);

// Channel order from a recording of four taps, microphone 0 to 3, one in
// each `tap_seconds` window.
Check tap_check(const WavData& recording, double tap_seconds);

// The virtual microphone at `pcm_path`, given what `pactl list modules
// short` printed (empty when no server answered) and the processes that
// hold the FIFO open.
Check virtual_mic_check(const std::string& pcm_path, const std::string& modules,
                        const std::vector<std::string>& readers);

// The live status file at wall-clock time `now`.
Check status_check(const std::string& status_path, double now);

// "PID (NAME)" of every process with a file descriptor on a path that
// starts with `prefix`.
std::vector<std::string> processes_holding(const std::string& prefix);

// Text: a line per check, its details and advice, then the summary.
std::string doctor_text(const std::vector<Check>& checks);
// The same as one JSON object.
std::string doctor_json(const std::string& device, const std::vector<Check>& checks);

// The whole program; returns the exit status (0 all well, 1 problems, 2 a
// refused command line).
int run_doctor(int argc, char** argv);

}  // namespace sonderlark
