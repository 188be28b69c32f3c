#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <functional>
#include <stdexcept>

#include <sys/stat.h>

#include "audio/wav.h"

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

// What the reader makes of an input: the record, or its error message.
std::string outcome(const std::function<WavData()>& read) {
  try {
    const WavData wav = read();
    std::string text = std::to_string(wav.sample_rate) + " " + std::to_string(wav.channels) + " " +
                       std::to_string(wav.bits_per_sample);
    for (const auto& channel : wav.samples) {
      text += " |";
      for (double v : channel) {  // every bit of every sample
        uint64_t bits;
        std::memcpy(&bits, &v, sizeof bits);
        text += ' ';
        text += std::to_string(bits);
      }
    }
    return text;
  } catch (const std::runtime_error& e) {
    std::string text = "error: ";  // appended: GCC 12 warns falsely on "literal" + string
    text += e.what();
    return text;
  }
}

// A seed read from a regular file (in blocks), from a FIFO (in one pass,
// as it arrives) and parsed from memory gives one and the same outcome.
TEST(FuzzCorpus, FilesPipesAndBytesReadAlike) {
  test::TempDir tmp;
  const std::string fifo = tmp.path("seed.fifo");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  for (const auto& entry : std::filesystem::directory_iterator(test::source_path("fuzz/corpus"))) {
    const std::string path = entry.path().string();
    SCOPED_TRACE(path);
    const std::vector<uint8_t> bytes = test::read_bytes(path);
    const std::string parsed = outcome([&] { return parse_wav(bytes, path); });
    EXPECT_EQ(outcome([&] { return read_wav(path); }), parsed);
    const int writer = test::spawn({"sh", "-c", "cat \"$0\" > \"$1\"", path, fifo}, {}, tmp.path("w.out"),
                                   tmp.path("w.err"));
    std::string expected = parsed;  // the path in the message is the FIFO's
    if (parsed.starts_with("error: not a RIFF/WAVE file: ")) expected.replace(29, std::string::npos, fifo);
    EXPECT_EQ(outcome([&] { return read_wav(fifo); }), expected);
    test::wait_child(writer);
  }
}

}  // namespace
}  // namespace sonderlark
