#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>

#include "support.h"

extern "C" int fuzz_wav_reader_entry(const uint8_t* data, size_t size);
extern "C" int fuzz_one_shot_chain_entry(const uint8_t* data, size_t size);

namespace sonderlark {
namespace {

// Every seed goes through both harnesses, whose invariant checks abort on a
// violation; so do truncations of each seed, as a cheap sweep of the offsets.
TEST(FuzzCorpus, SeedsAndTheirPrefixesKeepTheInvariants) {
  std::size_t seeds = 0;
  for (const auto& entry : std::filesystem::directory_iterator(test::source_path("fuzz/corpus"))) {
    SCOPED_TRACE(entry.path().string());
    const std::vector<uint8_t> bytes = test::read_bytes(entry.path().string());
    EXPECT_EQ(fuzz_wav_reader_entry(bytes.data(), bytes.size()), 0);
    EXPECT_EQ(fuzz_one_shot_chain_entry(bytes.data(), bytes.size()), 0);
    for (std::size_t cut = 0; cut < std::min<std::size_t>(bytes.size(), 200); cut += 3) {
      EXPECT_EQ(fuzz_wav_reader_entry(bytes.data(), cut), 0);
    }
    ++seeds;
  }
  EXPECT_GE(seeds, 20u);
}

}  // namespace
}  // namespace sonderlark
