#include <algorithm>
#include <cmath>
#include <stdexcept>

#include "audio/wav.h"

namespace sonderlark {

void write_le32(std::ofstream& out, uint32_t value) {
  for (int shift = 0; shift < 32; shift += 8) out.put(static_cast<char>((value >> shift) & 0xFFu));
}

void write_le16(std::ofstream& out, uint16_t value) {
  out.put(static_cast<char>(value & 0xFFu));
  out.put(static_cast<char>((value >> 8) & 0xFFu));
}

int16_t pcm16_from_sample(double x) {
  if (std::isnan(x)) return 0;
  if (x < -1.0) return -32767;
  if (x > 1.0) return 32767;
  // 32767, not 32768: the range is symmetric and -32768 never occurs.
  // std::round takes halves away from zero (0.5 -> 16384).
  return static_cast<int16_t>(std::round(x * 32767.0));
}

void write_mono_wav(const std::string& path, int32_t sample_rate, const std::vector<double>& samples) {
  if (samples.size() > kMaxMonoWavSamples) throw std::runtime_error("failed to write WAV: " + path);
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  if (!out) throw std::runtime_error("failed to write WAV: " + path);

  const uint32_t rate = static_cast<uint32_t>(sample_rate);
  const uint32_t data_size = static_cast<uint32_t>(samples.size()) * 2u;  // 2 bytes per mono sample
  out.write("RIFF", 4);
  write_le32(out, 36u + data_size);  // "WAVE" (4) + fmt chunk (8 + 16) + data header (8) + data
  out.write("WAVE", 4);
  out.write("fmt ", 4);
  write_le32(out, 16);        // PCM fmt body
  write_le16(out, 1);         // integer PCM
  write_le16(out, 1);         // mono
  write_le32(out, rate);
  write_le32(out, rate * 2u);  // byte rate: rate x 1 channel x 2 bytes
  write_le16(out, 2);         // block align: 1 channel x 2 bytes
  write_le16(out, 16);        // bits per sample
  out.write("data", 4);
  write_le32(out, data_size);
  // Samples go out in blocks: the same bytes as one write_le16 per sample.
  constexpr std::size_t kBlockSamples = 1 << 16;
  std::vector<char> block;
  block.reserve(2 * kBlockSamples);
  for (std::size_t start = 0; start < samples.size(); start += kBlockSamples) {
    const std::size_t end = std::min(samples.size(), start + kBlockSamples);
    block.clear();
    for (std::size_t i = start; i < end; ++i) {
      const uint16_t v = static_cast<uint16_t>(pcm16_from_sample(samples[i]));
      block.push_back(static_cast<char>(v & 0xFFu));
      block.push_back(static_cast<char>(v >> 8));
    }
    out.write(block.data(), static_cast<std::streamsize>(block.size()));
  }
}

}  // namespace sonderlark
