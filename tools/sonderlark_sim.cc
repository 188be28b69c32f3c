// sonderlark-sim: turns a mono WAV into a simulated four-channel array
// recording of a source at a chosen direction, as 4-channel S32_LE WAV or
// headerless raw frames (the format arecord delivers in live mode).
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <algorithm>
#include <fstream>
#include <random>
#include <iostream>
#include <optional>
#include <stdexcept>
#include <cstdint>
#include <string>
#include <vector>

#include "audio/array_sim.h"
#include "audio/wav.h"
#include "util/args.h"

namespace {

void usage(const char* program) {
  std::cout << "Usage: " << program << " --input MONO.wav --output OUT [options]\n"
            << "  --lag L          End-to-end lag of channel 3 against channel 0, samples (may be fractional). Default: 0.\n"
            << "  --angle DEG      Source angle, -90..90; sets the lag to 8 x sin(DEG).\n"
            << "  --noise-rms X    Independent white noise per channel, full scale 1.0. Default: 0.\n"
            << "  --gain-db DB     Level change applied to the source before simulation. Default: 0.\n"
            << "  --repeat N       Repeat the source N times. Default: 1.\n"
            << "  --seed N         Noise seed. Default: 1.\n"
            << "  --raw            Write headerless interleaved S32_LE frames instead of a WAV.\n"
            << "Faults and taps, for checking sonderlark-doctor:\n"
            << "  --tap MIC        A tap on microphone MIC instead of a far source: channel c hears it\n"
            << "                   2 x |c - MIC| samples later and 1 + |c - MIC| times quieter.\n"
            << "  --dead-channel C Channel C records silence.\n"
            << "  --channel-gain-db C:DB     Level change of channel C (full scale clips).\n"
            << "  --channel-noise-rms C:X    More independent noise on channel C.\n"
            << "  --swap A:B       Channels A and B change places.\n";
}

// What the program is told besides the simulation itself.
struct SimOptions {
  std::string input_path;
  std::string output_path;
  sonderlark::ArraySimulation sim;
  double gain_db = 0.0;
  long repeat = 1;
  bool raw = false;
};

// Throws std::runtime_error naming the option when `value` is not a number.
template <typename T>
T number(const std::string& option, const std::string& value, std::optional<T> parsed) {
  if (!parsed) throw std::runtime_error("invalid value for " + option + ": " + value);
  return *parsed;
}

// "C:X" as a channel and a number.
std::pair<int32_t, double> channel_and(const std::string& option, const std::string& text) {
  const std::size_t colon = text.find(':');
  if (colon == std::string::npos) throw std::runtime_error("expected CHANNEL:VALUE, got " + text);
  return {number(option, text, sonderlark::leading_int(text.substr(0, colon))),
          number(option, text, sonderlark::leading_number(text.substr(colon + 1)))};
}

// Sets option `arg` from `value`; false for an option that does not exist.
bool set_option(SimOptions& o, const std::string& arg, const std::string& value) {
  using sonderlark::leading_int;
  using sonderlark::leading_number;
  sonderlark::ArraySimulation& sim = o.sim;
  if (arg == "--input") o.input_path = value;
  else if (arg == "--output") o.output_path = value;
  else if (arg == "--lag") sim.end_to_end_lag = number(arg, value, leading_number(value));
  else if (arg == "--angle") sim.end_to_end_lag = sonderlark::lag_for_angle(number(arg, value, leading_number(value)));
  else if (arg == "--noise-rms") sim.noise_rms = number(arg, value, leading_number(value));
  else if (arg == "--gain-db") o.gain_db = number(arg, value, leading_number(value));
  else if (arg == "--repeat") o.repeat = number(arg, value, leading_int(value));
  else if (arg == "--seed") sim.seed = static_cast<uint32_t>(number(arg, value, sonderlark::whole_number(value, 0, UINT32_MAX)));
  else if (arg == "--tap") sim.tap = number(arg, value, leading_int(value));
  else if (arg == "--dead-channel") sim.channel_gains_db.emplace_back(number(arg, value, leading_int(value)), -1000.0);
  else if (arg == "--channel-gain-db") sim.channel_gains_db.push_back(channel_and(arg, value));
  else if (arg == "--channel-noise-rms") sim.channel_noise_rms.push_back(channel_and(arg, value));
  else if (arg == "--swap") {
    const auto [a, b] = channel_and(arg, value);
    sim.swaps.emplace_back(a, static_cast<int32_t>(b));
  } else return false;
  return true;
}

// Nothing to go on, else the exit status. Throws on a refused line.
std::optional<int> parse_sim_args(int argc, char** argv, SimOptions& o) {
  sonderlark::ArgReader args{argc, argv};
  const std::string program = sonderlark::program_name(args, "sonderlark-sim");
  while (const std::optional<std::string> arg = sonderlark::next_arg(args)) {
    if (*arg == "--help" || *arg == "-h") {
      usage(program.c_str());
      return 0;
    }
    if (*arg == "--raw") {
      o.raw = true;
      continue;
    }
    const std::optional<std::string> value = sonderlark::next_arg(args);
    if (!value) throw std::runtime_error(*arg + " requires a value");
    if (!set_option(o, *arg, *value)) throw std::runtime_error("unknown argument: " + *arg);
  }
  if (o.input_path.empty() || o.output_path.empty() || o.repeat < 1) {
    usage(program.c_str());
    return 2;
  }
  return std::nullopt;
}

// The simulated recording, as a WAV file or raw frames.
void write_recording(const SimOptions& o, int32_t sample_rate, const std::vector<uint8_t>& frames) {
  std::ofstream out(o.output_path, std::ios::binary | std::ios::trunc);
  if (!out) throw std::runtime_error("cannot write " + o.output_path);
  if (!o.raw) {
    if (frames.size() > 0xFFFFFFFFu - 36u) throw std::runtime_error("too long for a WAV file; use --raw");
    const std::vector<uint8_t> header =
        sonderlark::wav_header(sample_rate, o.sim.channels, 32, static_cast<uint32_t>(frames.size()));
    out.write(reinterpret_cast<const char*>(header.data()), static_cast<std::streamsize>(header.size()));
  }
  out.write(reinterpret_cast<const char*>(frames.data()), static_cast<std::streamsize>(frames.size()));
  if (!out.flush()) throw std::runtime_error("failed writing " + o.output_path);
}

}  // namespace

int main(int argc, char** argv) {
  SimOptions o;
  try {
    if (const std::optional<int> status = parse_sim_args(argc, argv, o)) return *status;
    const sonderlark::WavData source = sonderlark::read_wav(o.input_path);
    const double gain = std::pow(10.0, o.gain_db / 20.0);
    std::vector<double> mono;
    mono.reserve(source.samples[0].size() * static_cast<std::size_t>(o.repeat));
    for (long r = 0; r < o.repeat; ++r) {
      for (double v : source.samples[0]) mono.push_back(v * gain);
    }
    write_recording(o, source.sample_rate, sonderlark::interleave_s32le(sonderlark::simulate_array(mono, o.sim)));
    std::cerr << "simulated end-to-end lag " << o.sim.end_to_end_lag << " samples, " << mono.size() << " frames\n";
    return 0;
  } catch (const std::exception& e) {
    std::cerr << "sonderlark-sim: " << e.what() << '\n';
    return 1;
  }
}
