// Bytes in, the WAV reader runs; its own errors are fine, anything else aborts.
#include <cstdint>
#include <cstdlib>
#include <stdexcept>

#include "audio/wav.h"
#include "fuzz_check.h"

// The test suite builds this file under another entry name to replay the corpus.
#ifndef FUZZ_ENTRY
#define FUZZ_ENTRY LLVMFuzzerTestOneInput
#endif

extern "C" int FUZZ_ENTRY(const uint8_t* data, size_t size) {
  try {
    sonderlark::check_wav_invariants(sonderlark::parse_wav({data, size}, "fuzz.wav"));
  } catch (const std::runtime_error& e) {
    if (!sonderlark::is_reader_message(e.what())) std::abort();
  }
  return 0;
}
