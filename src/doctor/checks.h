#pragma once

// The doctor's checks: each takes what was found (a recording, a command's
// output, a status record) and gives one Check. Nothing here runs a
// process or reads a device.

#include <cstdint>
#include <string>
#include <vector>

#include "audio/wav.h"
#include "report/live_status.h"

namespace sonderlark {

struct DoctorOptions {
  std::string device = "hw:1,0";
  int32_t seconds = 5;  // length of the channel recording
  bool tap = false;     // interactive channel-order check
  std::string pcm_path;     // --pcm-output; empty: found from the set-up
  bool virtual_mic = false;  // --virtual-mic: one is wanted, wherever it is
  std::string status_path;  // empty: the tool's default
  bool json = false;
};

// Per channel: level, peak and noise floor in dBFS, clipped samples, DC offset.
struct ChannelMeasure {
  double level_dbfs = 0.0;
  double peak_dbfs = 0.0;
  double floor_dbfs = 0.0;
  int64_t clipped = 0;
  double dc_offset = 0.0;
};

// The outcome of one check: state "ok", "problem" or "skipped"; a one-line
// message, lines of detail, and what to do about a problem. The channel
// check also carries its figures, for --json.
struct Check {
  std::string name;
  std::string state;
  std::string message;
  std::vector<std::string> details;
  std::string advice;
  std::vector<ChannelMeasure> channels = {};
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

std::vector<ChannelMeasure> measure_channels(const WavData& recording);

// Dead, clipping, much noisier (floor >= 10 dB over the median of the
// others) or far quieter (level >= 12 dB under the median of the others),
// each with its own advice.
Check channels_check(const WavData& recording);

// The gain that puts the loudest peak at -6 dBFS, whole dB down, -60..+36;
// a problem when the recording clips, which no processing gain undoes.
Check gain_check(const WavData& recording);

// Channel order from a recording of four taps, microphone 0 to 3, one in
// each `tap_seconds` window, on `device`. A wrong order that is a clear
// permutation comes with an ALSA route device that restores it.
Check tap_check(const WavData& recording, double tap_seconds, const std::string& device);

// An ALSA definition of pcm.`name`: `device` with its channels put back in
// order, when microphone m arrives on channel order[m].
std::string route_definition(const std::string& name, const std::string& device, const std::vector<int>& order);

// The virtual microphone this user has set up, as far as can be seen.
struct MicSetup {
  std::string pcm_path;  // the FIFO to check; empty when none is set up or asked for
  std::string found;     // where the path came from, for the report
};

// What the file system says of a path, as far as the checks need it.
struct PathFacts {
  bool exists = false;
  bool fifo = false;
  bool ours = false;  // owned by this user or by root
  std::string owner;  // the owner's name, or uid
};

// In this order: --pcm-output, the PCM path the live status file names, a
// loaded pipe source (the one on `runtime_default` first), a FIFO at
// `runtime_default` (sonderlark-mic's; `runtime_fifo` says whether there is
// one), and with --virtual-mic `runtime_default`. `modules` is what `pactl
// list modules short` printed (empty when no server answered).
MicSetup find_mic_setup(const DoctorOptions& options, const std::string& status_pcm, const std::string& modules,
                        const std::string& runtime_default, bool runtime_fifo);

// The virtual microphone of `setup`, given whether a sound server answered,
// what `pactl list modules short` printed and the processes holding the
// FIFO, and what the file system says of its path. Skipped when none is set
// up: one-shot use needs none.
Check virtual_mic_check(const MicSetup& setup, bool server_answered, const std::string& modules,
                        const std::vector<std::string>& readers, const std::string& runtime_default,
                        const PathFacts& path);

// The live status file at `status_path`, read in state `state` as `record`
// at wall-clock time `now`.
Check status_check(const std::string& status_path, RecordState state, const StatusRecord& record, double now);

// The last non-empty line of `text`.
std::string last_line(const std::string& text);

// Text: a line per check, its details and advice, then the summary.
std::string doctor_text(const std::vector<Check>& checks);
// The same as one JSON object.
std::string doctor_json(const std::string& device, const std::vector<Check>& checks);

}  // namespace sonderlark
