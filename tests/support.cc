#include "support.h"

#include "audio/array_sim.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>

namespace sonderlark::test {

TempDir::TempDir() {
  std::string pattern = (std::filesystem::temp_directory_path() / "sonderlark-test-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  dir = pattern;
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(dir, ignored);
}

std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void write_file(const std::string& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << bytes;
}

std::string source_path(const std::string& relative) { return std::string(SONDERLARK_SOURCE_DIR) + "/" + relative; }

void expect_golden(const std::string& name, const std::string& text) {
  const std::string path = source_path("tests/golden/" + name);
  if (std::getenv("SONDERLARK_UPDATE_GOLDEN") != nullptr) write_file(path, text);
  EXPECT_EQ(text, read_file(path)) << "tests/golden/" << name;
}

std::vector<double> white_noise(std::size_t n, double amplitude, uint32_t seed) {
  std::mt19937 rng(seed);
  std::vector<double> x(n);
  // Straight from the generator's integers: identical with every library.
  for (double& v : x) v = amplitude * ((static_cast<double>(rng()) - 2147483648.0) / 2147483648.0);
  return x;
}

std::vector<double> shifted(const std::vector<double>& x, int delay) {
  std::vector<double> y(x.size(), 0.0);
  const int64_t n = static_cast<int64_t>(x.size());
  for (int64_t i = 0; i < n; ++i) {
    const int64_t j = i - delay;
    if (j >= 0 && j < n) y[static_cast<std::size_t>(i)] = x[static_cast<std::size_t>(j)];
  }
  return y;
}

std::vector<std::vector<double>> array_noise(int lag, std::size_t frames, double amplitude, uint32_t seed) {
  const std::vector<double> source = white_noise(frames, amplitude, seed);
  std::vector<std::vector<double>> channels;
  for (int c = 0; c < 4; ++c) channels.push_back(shifted(source, static_cast<int>(std::lround(c * lag / 3.0))));
  return channels;
}

WavData record(std::vector<std::vector<double>> channels, int32_t sample_rate, int32_t bits) {
  return {sample_rate, static_cast<int32_t>(channels.size()), bits, std::move(channels)};
}

std::string pcm_wav(const std::vector<std::vector<double>>& channels, uint32_t rate, uint32_t bits) {
  std::vector<uint8_t> data = interleave_s32le(channels);
  if (bits == 16) {
    data.clear();
    for (std::size_t f = 0; f < (channels.empty() ? 0 : channels[0].size()); ++f) {
      for (const auto& channel : channels) {
        const auto v = static_cast<uint16_t>(pcm16_from_sample(channel[f]));
        data.insert(data.end(), {static_cast<uint8_t>(v), static_cast<uint8_t>(v >> 8)});
      }
    }
  }
  std::vector<uint8_t> header = wav_header(static_cast<int32_t>(rate), static_cast<int32_t>(channels.size()),
                                           static_cast<int32_t>(bits), static_cast<uint32_t>(data.size()));
  header.insert(header.end(), data.begin(), data.end());
  return std::string(header.begin(), header.end());
}

}  // namespace sonderlark::test
