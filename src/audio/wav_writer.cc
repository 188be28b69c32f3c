#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <string>

#include "audio/wav.h"
#include "util/files.h"
#include "util/vector_clones.h"

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

MonoWavWriter begin_mono_wav(const std::string& path, int32_t sample_rate, uint64_t samples) {
  if (samples > kMaxMonoWavSamples) throw std::runtime_error("failed to write WAV: " + path);
  MonoWavWriter writer{begin_replacement(path), 0, 0, {}};
  if (!writer.file.fd.valid()) throw std::runtime_error("failed to write WAV: " + path);
  writer.expected = samples;

  const uint32_t rate = static_cast<uint32_t>(sample_rate);
  const uint32_t data_size = static_cast<uint32_t>(samples) * 2u;  // 2 bytes per mono sample
  std::string& bytes = writer.bytes;
  bytes = "RIFF";
  write_le32(bytes, 36u + data_size);  // "WAVE" (4) + fmt chunk (8 + 16) + data header (8) + data
  bytes += "WAVEfmt ";
  write_le32(bytes, 16);         // PCM fmt body
  write_le16(bytes, 1);          // integer PCM
  write_le16(bytes, 1);          // mono
  write_le32(bytes, rate);
  write_le32(bytes, rate * 2u);  // byte rate: rate x 1 channel x 2 bytes
  write_le16(bytes, 2);          // block align: 1 channel x 2 bytes
  write_le16(bytes, 16);         // bits per sample
  bytes += "data";
  write_le32(bytes, data_size);
  replacement_write(writer.file, bytes);
  bytes.clear();
  return writer;
}

namespace {

// Bytes gathered before one write: a block at a time would be a system
// call per 16 KiB.
constexpr std::size_t kFlushBytes = 1 << 20;

void flush(MonoWavWriter& writer) {
  replacement_write(writer.file, writer.bytes);
  writer.bytes.clear();
}

}  // namespace

void write_mono_samples(MonoWavWriter& writer, const double* samples, std::size_t count) {
  constexpr std::size_t kStep = 4096;
  int16_t pcm[kStep];
  const std::size_t at = writer.bytes.size();
  writer.bytes.resize(at + 2 * count);
  char* out = writer.bytes.data() + at;
  for (std::size_t start = 0; start < count; start += kStep) {
    const std::size_t n = std::min(kStep, count - start);
    pcm16_block(samples + start, n, pcm);
    for (std::size_t i = 0; i < n; ++i, out += 2) {  // little-endian
      const auto v = static_cast<uint16_t>(pcm[i]);
      out[0] = static_cast<char>(v & 0xFFu);
      out[1] = static_cast<char>(v >> 8);
    }
  }
  if (writer.bytes.size() >= kFlushBytes) flush(writer);
  writer.written += count;
}

void finish_mono_wav(MonoWavWriter& writer) {
  flush(writer);
  if (writer.written != writer.expected) writer.file.failed = true;
  if (!finish_replacement(writer.file)) throw std::runtime_error("failed to write WAV: " + writer.file.path);
}


SONDERLARK_VECTOR_CLONES
void pcm16_block(const double* x, std::size_t n, int16_t* out) {
  for (std::size_t i = 0; i < n; ++i) {
    double v = x[i];
    v = v != v ? 0.0 : v;  // NaN
    v = v < -1.0 ? -1.0 : (v > 1.0 ? 1.0 : v);
    v *= 32767.0;
    // Halves away from zero, as std::round: the truncation, then one step
    // out when the part cut off (exact) is at least a half.
    const int32_t t = static_cast<int32_t>(v);
    const double cut = v - static_cast<double>(t);
    out[i] = static_cast<int16_t>(t + (cut >= 0.5) - (cut <= -0.5));
  }
}

void write_mono_wav(const std::string& path, int32_t sample_rate, const std::vector<double>& samples) {
  MonoWavWriter writer = begin_mono_wav(path, sample_rate, samples.size());
  // Samples go out in blocks after the header.
  constexpr std::size_t kBlockSamples = 1 << 16;
  for (std::size_t start = 0; start < samples.size(); start += kBlockSamples) {
    write_mono_samples(writer, samples.data() + start, std::min(kBlockSamples, samples.size() - start));
  }
  finish_mono_wav(writer);
}

}  // namespace sonderlark
