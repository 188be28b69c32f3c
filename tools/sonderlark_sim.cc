// sonderlark-sim: turns a mono WAV into a simulated four-channel array
// recording of a source at a chosen direction, as 4-channel S32_LE WAV or
// headerless raw frames (the format arecord delivers in live mode).
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "audio/array_sim.h"
#include "audio/wav.h"

namespace {

void usage(const char* program) {
  std::cout << "Usage: " << program << " --input MONO.wav --output OUT [options]\n"
            << "  --lag L          End-to-end lag of channel 3 against channel 0, samples (may be fractional). Default: 0.\n"
            << "  --angle DEG      Source angle, -90..90; sets the lag to 8 x sin(DEG).\n"
            << "  --noise-rms X    Independent white noise per channel, full scale 1.0. Default: 0.\n"
            << "  --gain-db DB     Level change applied to the source before simulation. Default: 0.\n"
            << "  --repeat N       Repeat the source N times. Default: 1.\n"
            << "  --seed N         Noise seed. Default: 1.\n"
            << "  --raw            Write headerless interleaved S32_LE frames instead of a WAV.\n";
}

}  // namespace

int main(int argc, char** argv) {
  using namespace sonderlark;
  std::string input_path;
  std::string output_path;
  ArraySimulation sim;
  double gain_db = 0.0;
  long repeat = 1;
  bool raw = false;
  try {
    for (int i = 1; i < argc; ++i) {
      const std::string arg = argv[i];
      auto value = [&]() -> std::string {
        if (i + 1 >= argc) throw std::runtime_error(arg + " requires a value");
        return argv[++i];
      };
      if (arg == "--help" || arg == "-h") {
        usage(argv[0]);
        return 0;
      } else if (arg == "--input") {
        input_path = value();
      } else if (arg == "--output") {
        output_path = value();
      } else if (arg == "--lag") {
        sim.end_to_end_lag = std::stod(value());
      } else if (arg == "--angle") {
        sim.end_to_end_lag = lag_for_angle(std::stod(value()));
      } else if (arg == "--noise-rms") {
        sim.noise_rms = std::stod(value());
      } else if (arg == "--gain-db") {
        gain_db = std::stod(value());
      } else if (arg == "--repeat") {
        repeat = std::stol(value());
      } else if (arg == "--seed") {
        sim.seed = static_cast<uint32_t>(std::stoul(value()));
      } else if (arg == "--raw") {
        raw = true;
      } else {
        throw std::runtime_error("unknown argument: " + arg);
      }
    }
    if (input_path.empty() || output_path.empty() || repeat < 1) {
      usage(argv[0]);
      return 2;
    }

    const WavData source = read_wav(input_path);
    const double gain = std::pow(10.0, gain_db / 20.0);
    std::vector<double> mono;
    mono.reserve(source.samples[0].size() * static_cast<std::size_t>(repeat));
    for (long r = 0; r < repeat; ++r) {
      for (double v : source.samples[0]) mono.push_back(v * gain);
    }
    const std::vector<uint8_t> frames = interleave_s32le(simulate_array(mono, sim));

    std::ofstream out(output_path, std::ios::binary | std::ios::trunc);
    if (!out) throw std::runtime_error("cannot write " + output_path);
    if (!raw) {
      if (frames.size() > 0xFFFFFFFFu - 36u) throw std::runtime_error("too long for a WAV file; use --raw");
      const std::vector<uint8_t> header =
          wav_header(source.sample_rate, sim.channels, 32, static_cast<uint32_t>(frames.size()));
      out.write(reinterpret_cast<const char*>(header.data()), static_cast<std::streamsize>(header.size()));
    }
    out.write(reinterpret_cast<const char*>(frames.data()), static_cast<std::streamsize>(frames.size()));
    if (!out.flush()) throw std::runtime_error("failed writing " + output_path);
    std::cerr << "simulated end-to-end lag " << sim.end_to_end_lag << " samples, "
              << mono.size() << " frames\n";
    return 0;
  } catch (const std::exception& e) {
    std::cerr << "sonderlark-sim: " << e.what() << '\n';
    return 1;
  }
}
