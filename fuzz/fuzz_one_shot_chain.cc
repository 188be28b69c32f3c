// The reader followed by every signal stage a one-shot run applies to what it
// reads: no header (channel count, rate, length) may crash or hang the chain,
// and the streamed analysis must give the whole-record calls' bits.
#include <sys/mman.h>
#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include "analysis_text.h"
#include "fuzz_check.h"
#include "util/unique_fd.h"

using namespace sonderlark;

namespace {

// The same bytes as a file, which the streamed analysis reads.
UniqueFd as_file(const uint8_t* data, size_t size) {
  UniqueFd fd(memfd_create("fuzz.wav", MFD_CLOEXEC));
  if (!fd.valid()) std::abort();
  for (size_t done = 0; done < size;) {
    const ssize_t n = write(fd.get(), data + done, size - done);
    if (n <= 0) std::abort();
    done += static_cast<size_t>(n);
  }
  return fd;
}

}  // namespace

// The test suite builds this file under another entry name to replay the corpus.
#ifndef FUZZ_ENTRY
#define FUZZ_ENTRY LLVMFuzzerTestOneInput
#endif

extern "C" int FUZZ_ENTRY(const uint8_t* data, size_t size) {
  WavData input;
  try {
    input = parse_wav({data, size}, "fuzz.wav");
  } catch (const std::runtime_error& e) {
    if (!is_reader_message(e.what())) std::abort();
    return 0;
  }
  check_wav_invariants(input);
  // The last byte picks a gain from -60 to +36 dB, so clipping paths run too.
  const double gain_db = size > 0 ? -60.0 + (data[size - 1] % 97) : 0.0;

  // The whole-record stages, one after another.
  const RecordingAnalysis whole = whole_record(input, gain_db);
  const std::size_t m = static_cast<std::size_t>(input.channels);
  if (whole.raw.rms.size() != m || whole.processed.peak.size() != m || whole.beamformed.rms.size() != 1) std::abort();
  if (whole.beam.lags.size() != m || whole.beam.samples.size() != input.samples[0].size()) std::abort();
  for (double v : whole.beam.samples) {
    if (!(v >= -1.0 && v <= 1.0)) std::abort();
  }
  if (!(whole.direction.confidence >= 0.0 && whole.direction.confidence <= 1.0)) std::abort();
  if (!(whole.direction.angle_degrees >= -90.0 && whole.direction.angle_degrees <= 90.0)) std::abort();
  for (double f : whole.raw.noise_floor) {
    if (!(f >= 0.0 && std::isfinite(f))) std::abort();
  }

  // The streamed analysis gives the same bits, in blocks as small as one
  // frame (the first byte picks the size).
  const UniqueFd file = as_file(data, size);
  if (dump(streamed({"/proc/self/fd/" + std::to_string(file.get())}, gain_db, 1 + data[0] % 97)) != dump(whole)) {
    std::abort();
  }
  return 0;
}
