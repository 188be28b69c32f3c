#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "audio/wav.h"

namespace sonderlark::test {

// A fresh directory under the system temp dir, removed with its contents.
struct TempDir {
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  std::string path(const std::string& name) const { return (dir / name).string(); }
  std::filesystem::path dir;
};

std::string read_file(const std::string& path);
void write_file(const std::string& path, const std::string& bytes);

// A path of the source tree.
std::string source_path(const std::string& relative);

// Holds `text` against tests/golden/NAME; with SONDERLARK_UPDATE_GOLDEN=1
// set, rewrites the file instead, after a deliberate change.
void expect_golden(const std::string& name, const std::string& text);

// Seeded white noise, uniform in [-amplitude, amplitude).
std::vector<double> white_noise(std::size_t n, double amplitude, uint32_t seed);

// x delayed by `delay` whole samples (zeros shifted in); negative delays lead.
std::vector<double> shifted(const std::vector<double>& x, int delay);

// Channel c of four hears seeded white noise round(c x lag / 3) samples
// after channel 0: a source at asin(lag / 8) from broadside.
std::vector<std::vector<double>> array_noise(int lag, std::size_t frames, double amplitude, uint32_t seed);

// A record of the given channels (full scale 1.0).
WavData record(std::vector<std::vector<double>> channels, int32_t sample_rate = 16000, int32_t bits = 32);

// A canonical PCM WAV file of the given channels (full scale 1.0) at 16 or
// 32 bits, in the simulator's and the beam writer's encodings.
std::string pcm_wav(const std::vector<std::vector<double>>& channels, uint32_t rate = 16000, uint32_t bits = 32);

}  // namespace sonderlark::test
