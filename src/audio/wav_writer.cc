#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <string>

#include "audio/wav.h"
#include "util/files.h"

namespace sonderlark {

void write_le32(std::string& out, uint32_t value) {
  for (int shift = 0; shift < 32; shift += 8) out.push_back(static_cast<char>((value >> shift) & 0xFFu));
}

void write_le16(std::string& out, uint16_t value) {
  out.push_back(static_cast<char>(value & 0xFFu));
  out.push_back(static_cast<char>((value >> 8) & 0xFFu));
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
  FileReplacement file = begin_replacement(path);
  if (file.fd < 0) throw std::runtime_error("failed to write WAV: " + path);

  const uint32_t rate = static_cast<uint32_t>(sample_rate);
  const uint32_t data_size = static_cast<uint32_t>(samples.size()) * 2u;  // 2 bytes per mono sample
  std::string bytes = "RIFF";
  write_le32(bytes, 36u + data_size);  // "WAVE" (4) + fmt chunk (8 + 16) + data header (8) + data
  bytes += "WAVEfmt ";
  write_le32(bytes, 16);        // PCM fmt body
  write_le16(bytes, 1);         // integer PCM
  write_le16(bytes, 1);         // mono
  write_le32(bytes, rate);
  write_le32(bytes, rate * 2u);  // byte rate: rate x 1 channel x 2 bytes
  write_le16(bytes, 2);         // block align: 1 channel x 2 bytes
  write_le16(bytes, 16);        // bits per sample
  bytes += "data";
  write_le32(bytes, data_size);
  // Samples go out in blocks after the header.
  constexpr std::size_t kBlockSamples = 1 << 16;
  bytes.reserve(std::max(bytes.size(), 2 * kBlockSamples));
  for (std::size_t start = 0; start < samples.size(); start += kBlockSamples) {
    const std::size_t end = std::min(samples.size(), start + kBlockSamples);
    for (std::size_t i = start; i < end; ++i) write_le16(bytes, static_cast<uint16_t>(pcm16_from_sample(samples[i])));
    replacement_write(file, bytes);
    bytes.clear();
  }
  replacement_write(file, bytes);
  if (!finish_replacement(file)) throw std::runtime_error("failed to write WAV: " + path);
}

}  // namespace sonderlark
