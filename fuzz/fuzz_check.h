#pragma once

#include <cstdlib>
#include <cstring>
#include <string>

#include "audio/wav.h"

namespace sonderlark {

// The reader's own messages; anything else escaping it is a finding.
inline bool is_reader_message(const std::string& message) {
  for (const char* prefix : {"not a RIFF/WAVE file: ", "truncated WAV chunk: ", "invalid fmt chunk",
                             "missing fmt or data chunk", "unsupported WAV encoding; expected PCM",
                             "unsupported PCM layout; expected 16-bit or 32-bit interleaved"}) {
    if (message.rfind(prefix, 0) == 0) return true;
  }
  return false;
}

// Invariants of every record the reader returns.
inline void check_wav_invariants(const WavData& wav) {
  if (wav.channels < 1 || wav.samples.size() != static_cast<std::size_t>(wav.channels)) std::abort();
  if (wav.bits_per_sample != 16 && wav.bits_per_sample != 32) std::abort();
  for (const auto& channel : wav.samples) {
    if (channel.size() != wav.samples[0].size()) std::abort();
    for (double v : channel) {
      if (!(v >= -1.0 && v < 1.0)) std::abort();
    }
  }
}

}  // namespace sonderlark
