#include "audio/array_sim.h"

#include <cmath>
#include <cstdlib>
#include <algorithm>
#include <random>

namespace sonderlark {
namespace {

constexpr double kPi = 3.141592653589793;
constexpr int kSincHalfWidth = 32;  // taps on each side of a fractional delay

void put_le(std::vector<uint8_t>& out, uint32_t value, int bytes) {
  for (int i = 0; i < bytes; ++i) out.push_back(static_cast<uint8_t>((value >> (8 * i)) & 0xFFu));
}

// x delayed by `delay` samples: y[i] = x(i - delay).
std::vector<double> delayed(const std::vector<double>& x, double delay) {
  const int64_t n = static_cast<int64_t>(x.size());
  std::vector<double> y(x.size(), 0.0);
  const double whole = std::floor(delay);
  const double frac = delay - whole;
  const int64_t shift = static_cast<int64_t>(whole);
  if (frac == 0.0) {
    for (int64_t i = 0; i < n; ++i) {
      const int64_t j = i - shift;
      if (j >= 0 && j < n) y[static_cast<std::size_t>(i)] = x[static_cast<std::size_t>(j)];
    }
    return y;
  }
  // Hann-windowed sinc centred on the fractional position.
  std::vector<double> taps;
  for (int k = -kSincHalfWidth + 1; k <= kSincHalfWidth; ++k) {
    const double t = k - frac;
    const double sinc = std::sin(kPi * t) / (kPi * t);
    const double window = 0.5 + 0.5 * std::cos(kPi * t / kSincHalfWidth);
    taps.push_back(sinc * window);
  }
  for (int64_t i = 0; i < n; ++i) {
    double sum = 0.0;
    for (int k = -kSincHalfWidth + 1; k <= kSincHalfWidth; ++k) {
      const int64_t j = i - shift - k;
      if (j >= 0 && j < n) sum += taps[static_cast<std::size_t>(k + kSincHalfWidth - 1)] * x[static_cast<std::size_t>(j)];
    }
    y[static_cast<std::size_t>(i)] = sum;
  }
  return y;
}

}  // namespace

double lag_for_angle(double angle_degrees) { return 8.0 * std::sin(angle_degrees * kPi / 180.0); }

namespace {

void add_faults(const std::vector<double>& mono, const ArraySimulation& sim, std::vector<std::vector<double>>& channels) {
  if (sim.tap >= 0) {
    for (int32_t c = 0; c < sim.channels; ++c) {
      const int distance = std::abs(c - sim.tap);
      std::vector<double>& ch = channels[static_cast<std::size_t>(c)];
      std::fill(ch.begin(), ch.end(), 0.0);
      for (std::size_t i = 0; i + 2 * distance < ch.size(); ++i) ch[i + 2 * distance] = mono[i] / (1 + distance);
    }
  }
  std::mt19937 rng(sim.seed + 1000);
  for (const auto& [c, rms] : sim.channel_noise_rms) {
    std::normal_distribution<double> noise(0.0, rms);
    for (double& x : channels.at(static_cast<std::size_t>(c))) x += noise(rng);
  }
  for (const auto& [c, db] : sim.channel_gains_db) {
    for (double& x : channels.at(static_cast<std::size_t>(c))) x = db <= -1000.0 ? 0.0 : x * std::pow(10.0, db / 20.0);
  }
  for (const auto& [a, b] : sim.swaps) {
    std::swap(channels.at(static_cast<std::size_t>(a)), channels.at(static_cast<std::size_t>(b)));
  }
}

}  // namespace

std::vector<std::vector<double>> simulate_array(const std::vector<double>& mono, const ArraySimulation& sim) {
  std::vector<std::vector<double>> out;
  // Uniform noise straight from the generator's integers: the same values
  // with every standard library, unlike the library's distributions.
  std::mt19937 rng(sim.seed);
  const double noise_scale = sim.noise_rms * std::sqrt(3.0) / 2147483648.0;
  for (int32_t c = 0; c < sim.channels; ++c) {
    const double share = sim.channels > 1 ? static_cast<double>(c) / (sim.channels - 1) : 0.0;
    std::vector<double> channel = delayed(mono, share * sim.end_to_end_lag);
    if (sim.noise_rms > 0.0) {
      for (double& v : channel) v += noise_scale * (static_cast<double>(rng()) - 2147483648.0);
    }
    out.push_back(std::move(channel));
  }
  add_faults(mono, sim, out);
  return out;
}

std::vector<uint8_t> interleave_s32le(const std::vector<std::vector<double>>& channels) {
  std::vector<uint8_t> bytes;
  if (channels.empty()) return bytes;
  const std::size_t frames = channels[0].size();
  bytes.reserve(frames * channels.size() * 4);
  for (std::size_t f = 0; f < frames; ++f) {
    for (const auto& channel : channels) {
      const double scaled = std::round(channel[f] * 2147483648.0);
      const double clamped = std::fmax(-2147483648.0, std::fmin(2147483647.0, scaled));
      put_le(bytes, static_cast<uint32_t>(static_cast<int32_t>(clamped)), 4);
    }
  }
  return bytes;
}

std::vector<uint8_t> wav_header(int32_t sample_rate, int32_t channels, int32_t bits_per_sample,
                                uint32_t data_bytes) {
  std::vector<uint8_t> h;
  const uint32_t block = static_cast<uint32_t>(channels * bits_per_sample / 8);
  for (char c : std::string("RIFF")) h.push_back(static_cast<uint8_t>(c));
  put_le(h, 36u + data_bytes, 4);
  for (char c : std::string("WAVEfmt ")) h.push_back(static_cast<uint8_t>(c));
  put_le(h, 16, 4);
  put_le(h, 1, 2);
  put_le(h, static_cast<uint32_t>(channels), 2);
  put_le(h, static_cast<uint32_t>(sample_rate), 4);
  put_le(h, static_cast<uint32_t>(sample_rate) * block, 4);
  put_le(h, block, 2);
  put_le(h, static_cast<uint32_t>(bits_per_sample), 2);
  for (char c : std::string("data")) h.push_back(static_cast<uint8_t>(c));
  put_le(h, data_bytes, 4);
  return h;
}

}  // namespace sonderlark
