#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "util/exact_math.h"
#include "util/files.h"
#include "util/unique_fd.h"

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

// Reads the whole file at `path` and decodes it as parse_wav would. Throws
// "failed to open WAV: PATH" when the file cannot be opened.
WavData read_wav(const std::string& path);

// Where one file's frames lie.
struct WavPart {
  std::string path;
  UniqueFd fd;  // open for reading
  uint64_t data_offset = 0;
  uint64_t frames = 0;
};

// A recording read a block of frames at a time, never whole: one WAV file,
// or the parts a split capture left, in order, as one recording. A pipe or
// device is read once, as far as its header's fmt and data chunks, into an
// unnamed file in $TMPDIR (else /tmp), so memory stays bounded whatever it
// claims.
struct WavSource {
  WavData format;  // the first part's header fields; no samples
  std::vector<WavPart> parts;
  uint64_t frames = 0;  // of all parts together
};

// Opens the files at `paths` (at least one) with the reader's checks and
// messages. Of several parts, one whose data chunk claims 2^31 - 1 bytes
// (arecord's size for a full 2 GiB part) holds the data to its end. Every further part must have the first one's sample rate,
// channel count and sample size, else "split capture part PATH differs in
// format from PATH0". A pipe that cannot be buffered gives "failed to buffer
// WAV stream: PATH".
WavSource open_wav_source(const std::vector<std::string>& paths);

// Decodes frames [first, first + count) of `source` into out[c][0 .. count)
// for each channel c. `scratch` is the caller's byte buffer, reused across
// calls. Throws "truncated WAV chunk: data" when a file has shrunk.
void read_frames(const WavSource& source, uint64_t first, uint64_t count, double* const* out,
                 std::vector<uint8_t>& scratch);

// Decodes `frames` whole frames of PCM laid out as `format` says (16 or 32
// bits, `format.channels` interleaved) from p into out[c][0 .. frames).
void decode_frames(const uint8_t* p, uint64_t frames, const WavData& format, double* const* out);

// Appends `value` to `out` as 4 bytes, least significant first.
void write_le32(std::string& out, uint32_t value);
// Appends `value` to `out` as 2 bytes, least significant first.
void write_le16(std::string& out, uint16_t value);

// The 16-bit PCM value of a sample: clamped to -1.0 .. +1.0, scaled by 32767
// (never 32768) and rounded half away from zero; NaN gives 0. The result
// lies in -32767 .. +32767.
int16_t pcm16_from_sample(double x);

// pcm16_from_sample of x[0 .. n) into out, many at a time: the same values.
void pcm16_block(const double* x, std::size_t n, int16_t* out);

// Largest sample count whose size fields (36 + 2n) still fit in 32 bits.
constexpr std::size_t kMaxMonoWavSamples = 2147483629;

// Writes a mono 16-bit PCM WAV with the canonical 44-byte header, whole or
// not at all: through PATH.tmp, renamed over PATH once every byte is written
// and the file closed. Throws "failed to write WAV: PATH" when the samples
// do not fit the 32-bit size fields (before writing any byte), or when the
// temporary file cannot be opened, written or closed (it is then removed,
// and an earlier file at PATH is left as it was).
void write_mono_wav(const std::string& path, int32_t sample_rate, const std::vector<double>& samples);

// The same file written a block at a time: begin_mono_wav with the final
// sample count, the samples in any number of blocks, then finish_mono_wav.
// A writer dropped before finishing (an exception on the way) removes its
// temporary file.
struct MonoWavWriter {
  FileReplacement file;
  uint64_t expected = 0;  // samples announced in the header
  uint64_t written = 0;
  std::string bytes;      // samples not yet written
};

// Throws "failed to write WAV: PATH" as write_mono_wav does.
MonoWavWriter begin_mono_wav(const std::string& path, int32_t sample_rate, uint64_t samples);
void write_mono_samples(MonoWavWriter& writer, const double* samples, std::size_t count);
// Throws "failed to write WAV: PATH" when any write failed or the count
// differs from the header's.
void finish_mono_wav(MonoWavWriter& writer);

}  // namespace sonderlark
