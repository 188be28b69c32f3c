#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "audio/wav.h"
#include "util/files.h"
#include "util/memory.h"

namespace sonderlark {
namespace {

constexpr double kScale16 = 1.0 / 32768.0;       // 2^-15
constexpr double kScale32 = 1.0 / 2147483648.0;  // 2^-31
constexpr uint64_t kMinWavBytes = 44;
constexpr uint64_t kChunkHeaderBytes = 8;
constexpr uint64_t kFmtBytes = 16;
constexpr uint64_t kBlockBytes = 1 << 20;  // data are decoded this much at a time
constexpr uint64_t kArecordPartSize = 0x7FFFFFFF;

uint16_t le16(const uint8_t* p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }

uint32_t le32(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
         (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

bool has_id(const uint8_t* p, const char* id) { return std::memcmp(p, id, 4) == 0; }

// RIFF chunks are padded to an even length; the pad byte is not in the size.
uint64_t padded_size(uint32_t size) { return static_cast<uint64_t>(size) + (size & 1u); }

// Up to the first NUL, as the message travels as a C string.
std::runtime_error truncated_chunk(const uint8_t* id) {
  return std::runtime_error("truncated WAV chunk: " + std::string(reinterpret_cast<const char*>(id), 4));
}

std::runtime_error not_wav(const std::string& path) { return std::runtime_error("not a RIFF/WAVE file: " + path); }

// What the chunk walk found.
struct Layout {
  bool fmt_seen = false;
  bool data_seen = false;
  uint16_t format_tag = 0;
  WavData format;  // header fields only
  uint64_t data_offset = 0;
  uint64_t data_size = 0;
};

void read_fmt(const uint8_t* fmt, Layout& layout) {
  layout.format_tag = le16(fmt);
  layout.format.channels = le16(fmt + 2);
  // Rates of 2^31 and above read as negative; later stages cope.
  layout.format.sample_rate = static_cast<int32_t>(le32(fmt + 4));
  layout.format.bits_per_sample = le16(fmt + 14);
  layout.fmt_seen = true;
}

bool layout_usable(const Layout& layout) {
  return layout.format_tag == 1 && layout.format.channels != 0 &&
         (layout.format.bits_per_sample == 16 || layout.format.bits_per_sample == 32);
}

// The errors of a finished walk, in the reader's order.
void check_layout(const Layout& layout) {
  if (!layout.fmt_seen || !layout.data_seen) throw std::runtime_error("missing fmt or data chunk");
  if (layout.format_tag != 1) throw std::runtime_error("unsupported WAV encoding; expected PCM");
  if (!layout_usable(layout)) {
    throw std::runtime_error("unsupported PCM layout; expected 16-bit or 32-bit interleaved");
  }
}

// Walks the chunks of a file of `total` bytes. fetch(offset, n, out) copies
// n bytes from the file and returns false when they are no longer there
// (the file shrank under us).
template <typename Fetch>
Layout walk_chunks(uint64_t total, const std::string& path, Fetch fetch) {
  uint8_t head[12];
  if (total < kMinWavBytes || !fetch(0, 12, head)) throw not_wav(path);
  if (!has_id(head, "RIFF") || !has_id(head + 8, "WAVE")) throw not_wav(path);
  Layout layout;
  // Offsets are 64-bit: a declared size near 2^32 cannot wrap the sum.
  uint64_t offset = 12;
  while (offset + kChunkHeaderBytes <= total) {
    uint8_t header[kChunkHeaderBytes];
    if (!fetch(offset, kChunkHeaderBytes, header)) throw std::runtime_error("truncated WAV chunk: ");  // id gone too
    const uint32_t size = le32(header + 4);
    const uint64_t body = offset + kChunkHeaderBytes;
    if (body + size > total) throw truncated_chunk(header);
    if (has_id(header, "fmt ")) {
      if (size < kFmtBytes) throw std::runtime_error("invalid fmt chunk");
      uint8_t fmt[kFmtBytes];
      if (!fetch(body, kFmtBytes, fmt)) throw truncated_chunk(header);
      read_fmt(fmt, layout);
    } else if (has_id(header, "data")) {
      layout.data_offset = body;
      layout.data_size = size;
      layout.data_seen = true;
    }
    offset = body + padded_size(size);
  }
  check_layout(layout);
  return layout;
}

// A record with the layout's header fields and `frames` frames of room.
WavData empty_record(const Layout& layout, uint64_t frames) {
  WavData wav = layout.format;
  wav.samples.assign(static_cast<std::size_t>(layout.format.channels), {});
  for (auto& channel : wav.samples) reserve_large(channel, frames);
  return wav;
}

uint64_t frame_bytes(const WavData& wav) {
  return static_cast<uint64_t>(wav.channels) * static_cast<uint64_t>(wav.bits_per_sample / 8);
}

// Four 32-bit channels, the array's own format: one sweep over the frames.
void decode_four_s32(const uint8_t* p, uint64_t frames, double* const* out) {
  double* o0 = out[0];
  double* o1 = out[1];
  double* o2 = out[2];
  double* o3 = out[3];
  for (uint64_t f = 0; f < frames; ++f, p += 16) {
    o0[f] = static_cast<int32_t>(le32(p)) * kScale32;
    o1[f] = static_cast<int32_t>(le32(p + 4)) * kScale32;
    o2[f] = static_cast<int32_t>(le32(p + 8)) * kScale32;
    o3[f] = static_cast<int32_t>(le32(p + 12)) * kScale32;
  }
}


// Appends the `frames` whole frames at p to the channels of `wav`.
void append_frames(const uint8_t* p, uint64_t frames, WavData& wav) {
  const std::size_t first = wav.samples[0].size();
  std::vector<double*> out;
  for (auto& channel : wav.samples) {
    channel.resize(first + frames);
    out.push_back(channel.data() + first);
  }
  decode_frames(p, frames, wav, out.data());
}

// Whole frames of at most kBlockBytes, at least one.
uint64_t block_frames(uint64_t frame_size) { return std::max<uint64_t>(kBlockBytes / frame_size, 1); }

bool pread_whole(int fd, uint64_t offset, uint64_t n, uint8_t* out) {
  while (n > 0) {
    const ssize_t got = pread(fd, out, n, static_cast<off_t>(offset));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    out += got;
    offset += static_cast<uint64_t>(got);
    n -= static_cast<uint64_t>(got);
  }
  return true;
}

// Reads up to n bytes; fewer only at the end of the stream.
uint64_t read_up_to(int fd, uint64_t n, uint8_t* out) {
  uint64_t done = 0;
  while (done < n) {
    const ssize_t got = read(fd, out + done, n - done);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    done += static_cast<uint64_t>(got);
  }
  return done;
}

// The layout of a regular file: the chunk walk reads headers only, through
// a window of the file, so that a file of many small chunks costs few reads.
Layout regular_layout(int fd, uint64_t total, const std::string& path) {
  std::vector<uint8_t> window(64 * 1024);
  uint64_t window_start = 0;
  uint64_t window_size = 0;
  auto fetch = [&](uint64_t offset, uint64_t n, uint8_t* out) {
    if (offset < window_start || offset + n > window_start + window_size) {
      window_start = offset;
      window_size = std::min<uint64_t>(window.size(), total - offset);
      if (n > window_size || !pread_whole(fd, offset, window_size, window.data())) {
        window_size = 0;
        return false;
      }
    }
    std::memcpy(out, window.data() + (offset - window_start), n);
    return true;
  };
  return walk_chunks(total, path, fetch);
}

// An unnamed file for a stream's bytes, in $TMPDIR or /tmp; -1 on failure.
int open_spool() {
  const char* dir = std::getenv("TMPDIR");
  const std::string folder = dir != nullptr && *dir != '\0' ? dir : "/tmp";
  int fd = open(folder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
  if (fd >= 0) return fd;
  std::string name = folder + "/sonderlark-stream-XXXXXX";  // file systems without O_TMPFILE
  fd = mkostemp(name.data(), O_CLOEXEC);
  if (fd >= 0) unlink(name.c_str());
  return fd;
}

// A pipe or device: read in order, once, as far as the fmt and data chunks
// (nothing after the data chunk is waited for), and copied as it passes
// into `spool`, which then reads as a regular file of those bytes. A chunk
// cut short is an error here, as it would be in a file.
void spool_stream(int fd, const std::string& path, int spool) {
  uint64_t consumed = 0;
  auto take = [&](uint64_t n, uint8_t* out) {
    const uint64_t got = read_up_to(fd, n, out);
    consumed += got;
    if (!write_all(spool, {reinterpret_cast<const char*>(out), static_cast<std::size_t>(got)})) throw std::runtime_error("failed to buffer WAV stream: " + path);
    return got;
  };
  uint8_t head[12];
  if (take(12, head) < 12 || !has_id(head, "RIFF") || !has_id(head + 8, "WAVE")) throw not_wav(path);
  bool fmt_seen = false;
  bool data_seen = false;
  std::vector<uint8_t> block;
  while (!(fmt_seen && data_seen)) {
    uint8_t header[kChunkHeaderBytes];
    if (take(kChunkHeaderBytes, header) < kChunkHeaderBytes) break;  // the walk stops short of a whole header
    const uint64_t size = le32(header + 4);
    for (uint64_t done = 0; done < size;) {
      const uint64_t n = std::min(kBlockBytes, size - done);
      block.resize(static_cast<std::size_t>(n));
      if (take(n, block.data()) < n) throw truncated_chunk(header);
      done += n;
    }
    fmt_seen = fmt_seen || has_id(header, "fmt ");
    data_seen = data_seen || has_id(header, "data");
    if ((size & 1u) != 0 && !(fmt_seen && data_seen)) take(1, block.data());
  }
  if (consumed < kMinWavBytes) throw not_wav(path);
}

// Opens `path` as one part: its layout, from the file itself or from the
// spool of a stream.
WavPart open_part(const std::string& path, bool split_part, Layout& layout) {
  WavPart part;
  part.path = path;
  // A split capture's part was checked before; it is opened as checked:
  // never through a link, never waiting on a FIFO.
  part.fd.reset(open(path.c_str(), O_RDONLY | O_CLOEXEC | (split_part ? O_NOFOLLOW | O_NONBLOCK : 0)));
  if (!part.fd.valid()) throw std::runtime_error("failed to open WAV: " + path);
  struct stat info {};
  if (split_part && (fstat(part.fd.get(), &info) != 0 || !S_ISREG(info.st_mode))) {
    throw std::runtime_error("split capture part " + path + " refused: not a regular file");
  }
  if (fstat(part.fd.get(), &info) != 0 || !S_ISREG(info.st_mode)) {
    const UniqueFd stream = std::move(part.fd);
    part.fd.reset(open_spool());
    if (!part.fd.valid()) throw std::runtime_error("failed to buffer WAV stream: " + path);
    spool_stream(stream.get(), path, part.fd.get());
    if (fstat(part.fd.get(), &info) != 0) throw std::runtime_error("failed to buffer WAV stream: " + path);
  }
  const uint64_t total = static_cast<uint64_t>(info.st_size);
  layout = regular_layout(part.fd.get(), total, path);
  part.data_offset = layout.data_offset;
  uint64_t data_size = layout.data_size;
  // arecord writes 2^31 - 1 as the size of a split capture's full part
  // (2^31 bytes follow): such a part's data run to the end of the file.
  if (split_part && data_size == kArecordPartSize) data_size = std::max(data_size, total - layout.data_offset);
  part.frames = data_size / frame_bytes(layout.format);  // a partial last frame is ignored
  return part;
}

}  // namespace

void decode_frames(const uint8_t* p, uint64_t frames, const WavData& format, double* const* out) {
  const std::size_t channels = static_cast<std::size_t>(format.channels);
  if (channels == 4 && format.bits_per_sample == 32) {
    decode_four_s32(p, frames, out);
    return;
  }
  // Frame by frame, reading the bytes in their order: a wide frame read
  // channel by channel would stride through memory a frame apart.
  const uint64_t size = frame_bytes(format);
  for (uint64_t f = 0; f < frames; ++f, p += size) {
    const uint8_t* in = p;
    if (format.bits_per_sample == 16) {
      for (std::size_t c = 0; c < channels; ++c, in += 2) out[c][f] = static_cast<int16_t>(le16(in)) * kScale16;
    } else {
      for (std::size_t c = 0; c < channels; ++c, in += 4) out[c][f] = static_cast<int32_t>(le32(in)) * kScale32;
    }
  }
}

WavData parse_wav(std::span<const uint8_t> bytes, const std::string& path) {
  auto fetch = [bytes](uint64_t offset, uint64_t n, uint8_t* out) {
    std::memcpy(out, bytes.data() + offset, n);
    return true;
  };
  const Layout layout = walk_chunks(bytes.size(), path, fetch);
  const uint64_t frames = layout.data_size / frame_bytes(layout.format);  // a partial last frame is ignored
  WavData wav = empty_record(layout, frames);
  append_frames(bytes.data() + layout.data_offset, frames, wav);
  return wav;
}

WavData read_wav(const std::string& path) {
  const WavSource source = open_wav_source({path});
  WavData wav = source.format;
  wav.samples.assign(static_cast<std::size_t>(wav.channels), {});
  for (auto& channel : wav.samples) {
    reserve_large(channel, source.frames);
    channel.resize(source.frames);
  }
  const uint64_t step = block_frames(frame_bytes(wav));
  std::vector<double*> out(wav.samples.size());
  std::vector<uint8_t> scratch;
  for (uint64_t f = 0; f < source.frames; f += step) {
    for (std::size_t c = 0; c < out.size(); ++c) out[c] = wav.samples[c].data() + f;
    read_frames(source, f, std::min(step, source.frames - f), out.data(), scratch);
  }
  return wav;
}

WavSource open_wav_source(const std::vector<std::string>& paths) {
  WavSource source;
  for (const std::string& path : paths) {
    Layout layout;
    source.parts.push_back(open_part(path, paths.size() > 1, layout));
    if (source.parts.size() == 1) {
      source.format = layout.format;
    } else if (layout.format.sample_rate != source.format.sample_rate ||
               layout.format.channels != source.format.channels ||
               layout.format.bits_per_sample != source.format.bits_per_sample) {
      throw std::runtime_error("split capture part " + path + " differs in format from " + paths.front());
    }
    source.frames += source.parts.back().frames;
  }
  return source;
}

void read_frames(const WavSource& source, uint64_t first, uint64_t count, double* const* out,
                 std::vector<uint8_t>& scratch) {
  const std::size_t channels = static_cast<std::size_t>(source.format.channels);
  const uint64_t size = frame_bytes(source.format);
  std::vector<double*> at(out, out + channels);
  uint64_t part_start = 0;  // the first frame of the part in hand
  for (const WavPart& part : source.parts) {
    if (count == 0) break;
    const uint64_t part_end = part_start + part.frames;
    if (first < part_end) {
      const uint64_t n = std::min(count, part_end - first);
      scratch.resize(static_cast<std::size_t>(n * size));
      if (!pread_whole(part.fd.get(), part.data_offset + (first - part_start) * size, n * size, scratch.data())) {
        throw std::runtime_error("truncated WAV chunk: data");
      }
      decode_frames(scratch.data(), n, source.format, at.data());
      for (double*& p : at) p += n;
      first += n;
      count -= n;
    }
    part_start = part_end;
  }
}

}  // namespace sonderlark
