#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <set>
#include <stdexcept>

#include <sys/stat.h>

#include "analysis_text.h"
#include "support.h"
#include "util/process.h"
#include "util/text.h"

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
    const std::string text = test::read_file(entry.path().string());
    const auto* bytes = reinterpret_cast<const uint8_t*>(text.data());
    EXPECT_EQ(fuzz_wav_reader_entry(bytes, text.size()), 0);
    EXPECT_EQ(fuzz_one_shot_chain_entry(bytes, text.size()), 0);
    for (std::size_t cut = 0; cut < std::min<std::size_t>(text.size(), 200); cut += 3) {
      EXPECT_EQ(fuzz_wav_reader_entry(bytes, cut), 0);
    }
    ++seeds;
  }
  EXPECT_GE(seeds, 20u);
}

// What the reader makes of an input: the format and the samples (the first
// of each of four channels in full, then hashes of every bit), or the error.
std::string outcome(const std::function<WavData()>& read) {
  try {
    const WavData wav = read();
    std::string text = std::to_string(wav.sample_rate) + " Hz, " + std::to_string(wav.channels) + " ch, " +
                       std::to_string(wav.bits_per_sample) + " bit";
    std::vector<double> rest;  // of the channels after the fourth
    for (std::size_t c = 0; c < wav.samples.size(); ++c) {
      if (c < 4) text += " " + nums(wav.samples[c]);
      if (c >= 4) rest.insert(rest.end(), wav.samples[c].begin(), wav.samples[c].end());
    }
    return wav.samples.size() > 4 ? text + " and the rest " + nums(rest) : text;
  } catch (const std::runtime_error& e) {
    std::string text = "error: ";  // appended: GCC 12 warns falsely on "literal" + string
    text += e.what();
    return text;
  }
}

// Each seed read from a regular file (in blocks) and parsed from memory gives
// one and the same outcome, the one in tests/golden/corpus.txt; read from a
// FIFO (in one pass, as it arrives) too, unless the golden says otherwise.
TEST(FuzzCorpus, FilesPipesAndBytesReadAlikeAndAsTheGoldenSays) {
  test::TempDir tmp;
  const std::string fifo = tmp.path("seed.fifo");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  std::set<std::filesystem::path> seeds;
  for (const auto& entry : std::filesystem::directory_iterator(test::source_path("fuzz/corpus"))) seeds.insert(entry);
  std::string all;
  for (const auto& seed : seeds) {
    const std::string path = seed.string();
    SCOPED_TRACE(path);
    const std::string bytes = test::read_file(path);
    const std::string parsed = outcome([&] {
      return parse_wav({reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()}, seed.filename().string());
    });
    all += seed.filename().string() + ": " + parsed + "\n";
    std::string from_file = outcome([&] { return read_wav(path); });
    if (from_file.starts_with("error: not a RIFF/WAVE file: ")) from_file.replace(29, std::string::npos, seed.filename());
    EXPECT_EQ(from_file, parsed);
    const pid_t writer = spawn_shell("cat " + shell_quote(path) + " > " + shell_quote(fifo));
    // A stream is read once, as far as its first fmt and data chunks: what
    // follows them can only count in a file. Such differences are golden too.
    std::string streamed = outcome([&] { return read_wav(fifo); });
    if (streamed.starts_with("error: not a RIFF/WAVE file: ")) streamed.replace(29, std::string::npos, seed.filename());
    if (streamed != parsed) all += seed.filename().string() + " as a stream: " + streamed + "\n";
    wait_child(writer);
  }
  test::expect_golden("corpus.txt", all);
}

}  // namespace
}  // namespace sonderlark
