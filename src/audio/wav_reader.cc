#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "audio/wav.h"
#include "util/memory.h"

namespace sonderlark {
namespace {

constexpr double kScale16 = 1.0 / 32768.0;       // 2^-15
constexpr double kScale32 = 1.0 / 2147483648.0;  // 2^-31
constexpr std::size_t kMinWavBytes = 44;
constexpr std::size_t kChunkHeaderBytes = 8;

uint16_t le16(const uint8_t* p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }

uint32_t le32(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
         (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

bool has_id(const uint8_t* p, const char* id) { return std::memcmp(p, id, 4) == 0; }

// RIFF chunks are padded to an even length; the pad byte is not in the size.
uint64_t padded_size(uint32_t size) { return static_cast<uint64_t>(size) + (size & 1u); }

}  // namespace

WavData parse_wav(std::span<const uint8_t> bytes, const std::string& path) {
  const uint64_t total = bytes.size();
  const uint8_t* base = bytes.data();
  if (total < kMinWavBytes || !has_id(base, "RIFF") || !has_id(base + 8, "WAVE")) {
    throw std::runtime_error("not a RIFF/WAVE file: " + path);
  }

  bool fmt_seen = false;
  bool data_seen = false;
  uint16_t format_tag = 0;
  WavData wav;
  uint64_t data_offset = 0;
  uint64_t data_size = 0;

  // Offsets are 64-bit: a declared size near 2^32 cannot wrap the sum.
  uint64_t offset = 12;
  while (offset + kChunkHeaderBytes <= total) {
    const uint8_t* header = base + offset;
    const uint32_t size = le32(header + 4);
    const uint64_t body = offset + kChunkHeaderBytes;
    if (body + size > total) {
      throw std::runtime_error("truncated WAV chunk: " +
                               std::string(reinterpret_cast<const char*>(header), 4));
    }
    if (has_id(header, "fmt ")) {
      if (size < 16) throw std::runtime_error("invalid fmt chunk");
      const uint8_t* fmt = base + body;
      format_tag = le16(fmt);
      wav.channels = le16(fmt + 2);
      // Rates of 2^31 and above read as negative; later stages cope.
      wav.sample_rate = static_cast<int32_t>(le32(fmt + 4));
      wav.bits_per_sample = le16(fmt + 14);
      fmt_seen = true;
    } else if (has_id(header, "data")) {
      data_offset = body;
      data_size = size;
      data_seen = true;
    }
    offset = body + padded_size(size);
  }

  if (!fmt_seen || !data_seen) throw std::runtime_error("missing fmt or data chunk");
  if (format_tag != 1) throw std::runtime_error("unsupported WAV encoding; expected PCM");
  if (wav.channels == 0 || (wav.bits_per_sample != 16 && wav.bits_per_sample != 32)) {
    throw std::runtime_error("unsupported PCM layout; expected 16-bit or 32-bit interleaved");
  }

  const uint64_t bytes_per_sample = static_cast<uint64_t>(wav.bits_per_sample) / 8;
  const uint64_t channels = static_cast<uint64_t>(wav.channels);
  const uint64_t frame_size = channels * bytes_per_sample;
  const uint64_t frames = data_size / frame_size;  // a partial last frame is ignored

  wav.samples.assign(channels, {});
  std::vector<double*> out(channels);
  for (uint64_t c = 0; c < channels; ++c) {
    reserve_large(wav.samples[c], frames);
    wav.samples[c].resize(frames);
    out[c] = wav.samples[c].data();
  }
  const uint8_t* data = base + data_offset;
  if (bytes_per_sample == 2) {
    for (uint64_t f = 0; f < frames; ++f) {
      const uint8_t* frame = data + f * frame_size;
      for (uint64_t c = 0; c < channels; ++c) {
        out[c][f] = static_cast<int16_t>(le16(frame + 2 * c)) * kScale16;
      }
    }
  } else {
    for (uint64_t f = 0; f < frames; ++f) {
      const uint8_t* frame = data + f * frame_size;
      for (uint64_t c = 0; c < channels; ++c) {
        out[c][f] = static_cast<int32_t>(le32(frame + 4 * c)) * kScale32;
      }
    }
  }
  return wav;
}

WavData read_wav(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) throw std::runtime_error("failed to open WAV: " + path);
  struct stat info {};
  if (fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && info.st_size > 0) {
    // A regular file is mapped rather than copied: its bytes are held once.
    const std::size_t size = static_cast<std::size_t>(info.st_size);
    void* map = mmap(nullptr, size, PROT_READ, MAP_PRIVATE | MAP_POPULATE, fd, 0);
    close(fd);
    if (map == MAP_FAILED) throw std::runtime_error("failed to open WAV: " + path);
    struct Unmap {
      void* map;
      std::size_t size;
      ~Unmap() { munmap(map, size); }
    } unmap{map, size};
    return parse_wav({static_cast<const uint8_t*>(map), size}, path);
  }
  // Anything else (a pipe, an empty or special file): read what it gives.
  std::vector<uint8_t> bytes;
  uint8_t buffer[65536];
  for (ssize_t n; (n = read(fd, buffer, sizeof buffer)) != 0;) {
    if (n < 0) {
      if (errno == EINTR) continue;
      break;
    }
    bytes.insert(bytes.end(), buffer, buffer + n);
  }
  close(fd);
  return parse_wav(bytes, path);
}

}  // namespace sonderlark
