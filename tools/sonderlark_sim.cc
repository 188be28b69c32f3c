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
            << "  --raw            Write headerless interleaved S32_LE frames instead of a WAV.\n"
            << "Faults and taps, for checking sonderlark-doctor:\n"
            << "  --tap MIC        A tap on microphone MIC instead of a far source: channel c hears it\n"
            << "                   2 x |c - MIC| samples later and 1 + |c - MIC| times quieter.\n"
            << "  --dead-channel C Channel C records silence.\n"
            << "  --channel-gain-db C:DB     Level change of channel C (full scale clips).\n"
            << "  --channel-noise-rms C:X    More independent noise on channel C.\n"
            << "  --swap A:B       Channels A and B change places.\n";
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
  int tap = -1;
  std::vector<std::pair<int, double>> channel_gains_db, channel_noise;
  std::vector<std::pair<int, int>> swaps;
  // "C:X" as a channel and a number.
  auto channel_and = [](const std::string& text) {
    const std::size_t colon = text.find(':');
    if (colon == std::string::npos) throw std::runtime_error("expected CHANNEL:VALUE, got " + text);
    return std::pair<int, double>{std::stoi(text.substr(0, colon)), std::stod(text.substr(colon + 1))};
  };
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
      } else if (arg == "--tap") {
        tap = std::stoi(value());
      } else if (arg == "--dead-channel") {
        channel_gains_db.emplace_back(std::stoi(value()), -1000.0);
      } else if (arg == "--channel-gain-db") {
        channel_gains_db.push_back(channel_and(value()));
      } else if (arg == "--channel-noise-rms") {
        channel_noise.push_back(channel_and(value()));
      } else if (arg == "--swap") {
        const auto [a, b] = channel_and(value());
        swaps.emplace_back(a, static_cast<int>(b));
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
    std::vector<std::vector<double>> channels = simulate_array(mono, sim);
    if (tap >= 0) {
      for (int c = 0; c < sim.channels; ++c) {
        const int distance = std::abs(c - tap);
        std::vector<double>& ch = channels[static_cast<std::size_t>(c)];
        std::fill(ch.begin(), ch.end(), 0.0);
        for (std::size_t i = 0; i + 2 * distance < ch.size(); ++i) ch[i + 2 * distance] = mono[i] / (1 + distance);
      }
    }
    std::mt19937 rng(sim.seed + 1000);
    for (const auto& [c, rms] : channel_noise) {
      std::normal_distribution<double> noise(0.0, rms);
      for (double& x : channels.at(static_cast<std::size_t>(c))) x += noise(rng);
    }
    for (const auto& [c, gain] : channel_gains_db) {
      for (double& x : channels.at(static_cast<std::size_t>(c))) x = gain <= -1000.0 ? 0.0 : x * std::pow(10.0, gain / 20.0);
    }
    for (const auto& [a, b] : swaps) std::swap(channels.at(static_cast<std::size_t>(a)), channels.at(static_cast<std::size_t>(b)));
    const std::vector<uint8_t> frames = interleave_s32le(channels);

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
