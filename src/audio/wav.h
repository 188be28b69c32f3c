#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "util/exact_math.h"

namespace sonderlark {

// Decoded multi-channel audio. samples[c][f] is channel c at frame f, full
// scale -1.0 .. +1.0. From read_wav: `channels` entries (at least one), all
// of one length (possibly 0), every value in [-1.0, +1.0).
struct WavData {
  int32_t sample_rate = 0;      // frames per second, as the header says
  int32_t channels = 0;         // as the header says
  int32_t bits_per_sample = 0;  // 16 or 32
  std::vector<std::vector<double>> samples;
};

// Decodes a RIFF/WAVE file of 16- or 32-bit integer PCM held in `bytes`.
// `path` only names the file in error messages. Throws std::runtime_error
// with the reader's message on any malformed input; never reads outside
// `bytes` and allocates no more than the data chunk justifies.
WavData parse_wav(std::span<const uint8_t> bytes, const std::string& path);

// Reads the whole file at `path` and decodes it with parse_wav. Throws
// "failed to open WAV: PATH" when the file cannot be opened.
WavData read_wav(const std::string& path);

// Appends `value` to `out` as 4 bytes, least significant first.
void write_le32(std::string& out, uint32_t value);
// Appends `value` to `out` as 2 bytes, least significant first.
void write_le16(std::string& out, uint16_t value);

// The 16-bit PCM value of a sample: clamped to -1.0 .. +1.0, scaled by 32767
// (never 32768) and rounded half away from zero; NaN gives 0. The result
// lies in -32767 .. +32767.
int16_t pcm16_from_sample(double x);

// Largest sample count whose size fields (36 + 2n) still fit in 32 bits.
constexpr std::size_t kMaxMonoWavSamples = 2147483629;

// Writes a mono 16-bit PCM WAV with the canonical 44-byte header, whole or
// not at all: through PATH.tmp, renamed over PATH once every byte is written
// and the file closed. Throws "failed to write WAV: PATH" when the samples
// do not fit the 32-bit size fields (before writing any byte), or when the
// temporary file cannot be opened, written or closed (it is then removed,
// and an earlier file at PATH is left as it was).
void write_mono_wav(const std::string& path, int32_t sample_rate, const std::vector<double>& samples);

}  // namespace sonderlark
