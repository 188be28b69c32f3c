#include <gtest/gtest.h>

#include <chrono>
#include <stdexcept>

#include "audio/wav.h"
#include "support.h"

namespace sonderlark {
namespace {

using test::Bytes;
using test::fmt_chunk;
using test::riff;

Bytes data_chunk(const Bytes& body) {
  Bytes b;
  b.str("data").u32(static_cast<uint32_t>(body.data.size())).append(body);
  if (body.data.size() % 2 == 1) b.pad(1);
  return b;
}

Bytes chunk(const std::string& id, std::size_t size, uint8_t fill = 0xAB) {
  Bytes b;
  b.str(id).u32(static_cast<uint32_t>(size)).pad(size, fill);
  if (size % 2 == 1) b.pad(1, 0x00);
  return b;
}

// One accepted layout and the record it must decode to.
struct LayoutCase {
  std::string name;
  Bytes file;
  int32_t sample_rate;
  int32_t channels;
  int32_t bits;
  std::vector<std::vector<double>> samples;
};

void PrintTo(const LayoutCase& c, std::ostream* os) { *os << c.name; }

std::vector<LayoutCase> layout_cases() {
  std::vector<LayoutCase> cases;
  {
    Bytes body;
    body.i16(-32768).i16(32767).i16(0).i16(1).i16(-1).i16(16384).i16(-16384).i16(2);
    cases.push_back({"Canonical16Bit4Ch", riff(fmt_chunk(1, 4, 16000, 16).append(data_chunk(body))), 16000, 4, 16,
                     {{-1.0, -1.0 / 32768}, {0.999969482421875, 0.5}, {0.0, -0.5}, {1.0 / 32768, 2.0 / 32768}}});
  }
  {
    Bytes body;
    body.u32(0x80000000u).u32(0x40000000u).u32(0x7FFFFFFFu).u32(0xFFFFFFFFu);
    cases.push_back({"ThirtyTwoBitStereo", riff(fmt_chunk(1, 2, 48000, 32).append(data_chunk(body))), 48000, 2, 32,
                     {{-1.0, 2147483647.0 / 2147483648.0}, {0.5, -1.0 / 2147483648.0}}});
  }
  {
    Bytes body;
    body.i16(100).i16(200).i16(300);  // one full frame of 2 channels, then half a frame
    cases.push_back({"PartialLastFrameDropped", riff(fmt_chunk(1, 2, 16000, 16).append(data_chunk(body))), 16000, 2,
                     16, {{100.0 / 32768}, {200.0 / 32768}}});
  }
  {
    Bytes body;
    body.i16(7).i16(8);  // smaller than one 3-channel frame
    cases.push_back({"DataSmallerThanAFrame", riff(fmt_chunk(1, 3, 16000, 16).append(data_chunk(body))), 16000, 3,
                     16, {{}, {}, {}}});
  }
  {
    Bytes body;
    body.i16(5);
    Bytes chunks = chunk("odd1", 3);  // odd chunk with its pad byte, before fmt
    chunks.append(fmt_chunk(1, 1, 8000, 16)).append(chunk("LIST", 9)).append(data_chunk(body)).append(chunk("junk", 1));
    cases.push_back({"OddAndUnknownChunksSkipped", riff(chunks), 8000, 1, 16, {{5.0 / 32768}}});
  }
  {
    Bytes body;
    body.i16(-2);
    Bytes chunks = data_chunk(body);
    chunks.append(fmt_chunk(1, 1, 16000, 16));
    cases.push_back({"FmtAfterData", riff(chunks), 16000, 1, 16, {{-2.0 / 32768}}});
  }
  for (std::size_t extra : {2u, 24u}) {
    Bytes body;
    body.i16(3);
    cases.push_back({"ExtendedFmt" + std::to_string(16 + extra),
                     riff(fmt_chunk(1, 1, 16000, 16, extra).append(data_chunk(body))), 16000, 1, 16, {{3.0 / 32768}}});
  }
  {
    Bytes first;
    first.i16(1);
    Bytes second;
    second.i16(2).i16(4);
    Bytes chunks = fmt_chunk(1, 2, 44100, 16);
    chunks.append(data_chunk(first)).append(fmt_chunk(1, 1, 22050, 16)).append(data_chunk(second));
    cases.push_back({"LastOccurrenceWins", riff(chunks), 22050, 1, 16, {{2.0 / 32768, 4.0 / 32768}}});
  }
  {
    Bytes body;
    body.i16(9);
    Bytes file = riff(fmt_chunk(1, 1, 0, 16).append(data_chunk(body)));
    file.pad(7, 0xEE);  // fewer than 8 bytes after the last chunk are ignored
    cases.push_back({"RateZeroAndShortTail", file, 0, 1, 16, {{9.0 / 32768}}});
  }
  {
    Bytes body;
    body.i16(1);
    cases.push_back({"RateAbove2To31ReadsNegative", riff(fmt_chunk(1, 1, 0x80000000u, 16).append(data_chunk(body))),
                     INT32_MIN, 1, 16, {{1.0 / 32768}}});
  }
  {
    Bytes file = riff(fmt_chunk(1, 5, 16000, 32).append(data_chunk(Bytes{})));
    cases.push_back({"NoFramesFiveChannels", file, 16000, 5, 32, {{}, {}, {}, {}, {}}});
  }
  return cases;
}

class WavLayout : public testing::TestWithParam<LayoutCase> {};

TEST_P(WavLayout, DecodesBitExactness) {
  const LayoutCase& c = GetParam();
  const WavData wav = parse_wav(c.file.data, "x.wav");
  EXPECT_EQ(wav.sample_rate, c.sample_rate);
  EXPECT_EQ(wav.channels, c.channels);
  EXPECT_EQ(wav.bits_per_sample, c.bits);
  EXPECT_EQ(wav.samples, c.samples);
}

INSTANTIATE_TEST_SUITE_P(Accepted, WavLayout, testing::ValuesIn(layout_cases()),
                         [](const auto& info) { return info.param.name; });

struct ErrorCase {
  std::string name;
  Bytes file;
  std::string message;
};

void PrintTo(const ErrorCase& c, std::ostream* os) { *os << c.name; }

std::vector<ErrorCase> error_cases() {
  const std::string not_riff = "not a RIFF/WAVE file: bad.wav";
  Bytes one;
  one.i16(1);
  std::vector<ErrorCase> cases = {
      {"Empty", Bytes{}, not_riff},
      {"FortyThreeBytes", Bytes{}.str("RIFF").u32(35).str("WAVE").pad(31), not_riff},
      {"NoRiff", Bytes{}.str("RIFX").u32(36).str("WAVE").pad(32), not_riff},
      {"NoWave", Bytes{}.str("RIFF").u32(36).str("AVI ").pad(32), not_riff},
      {"DataPastEnd", riff(fmt_chunk(1, 1, 16000, 16).append(Bytes{}.str("data").u32(100).pad(10))),
       "truncated WAV chunk: data"},
      {"TruncatedBeatsMissingData", riff(Bytes{}.str("LIST").u32(50).pad(10).pad(30)), "truncated WAV chunk: LIST"},
      {"TailOfEightBytesIsAChunk",
       riff(fmt_chunk(1, 1, 16000, 16).append(data_chunk(one)).append(Bytes{}.str("tail").u32(1))),
       "truncated WAV chunk: tail"},
      {"BinaryIdKeptAsIs", riff(fmt_chunk(1, 1, 16000, 16).append(Bytes{}.u32(0x20FF7F01u).u32(9))),
       "truncated WAV chunk: \x01\x7F\xFF "},
      {"SmallFmt", riff(Bytes{}.str("fmt ").u32(14).pad(14).append(data_chunk(one)).pad(8)), "invalid fmt chunk"},
      {"NoFmt", riff(data_chunk(one).append(chunk("LIST", 40))), "missing fmt or data chunk"},
      {"NoData", riff(fmt_chunk(1, 1, 16000, 16).append(chunk("LIST", 20))), "missing fmt or data chunk"},
      {"Float", riff(fmt_chunk(3, 1, 16000, 32).append(data_chunk(one))), "unsupported WAV encoding; expected PCM"},
      {"Extensible", riff(fmt_chunk(0xFFFE, 1, 16000, 16, 24).append(data_chunk(one))),
       "unsupported WAV encoding; expected PCM"},
      {"EncodingBeforeLayout", riff(fmt_chunk(3, 1, 16000, 24).append(data_chunk(one))),
       "unsupported WAV encoding; expected PCM"},
      {"EightBit", riff(fmt_chunk(1, 1, 16000, 8).append(data_chunk(one))),
       "unsupported PCM layout; expected 16-bit or 32-bit interleaved"},
      {"TwentyFourBit", riff(fmt_chunk(1, 1, 16000, 24).append(data_chunk(one))),
       "unsupported PCM layout; expected 16-bit or 32-bit interleaved"},
      {"ZeroChannels", riff(fmt_chunk(1, 0, 16000, 16).append(data_chunk(one))),
       "unsupported PCM layout; expected 16-bit or 32-bit interleaved"},
  };
  // Declared sizes that would wrap 32-bit offset arithmetic.
  for (uint32_t size : {0x7FFFFFFFu, 0x80000000u, 0xFFFFFFF7u, 0xFFFFFFF8u, 0xFFFFFFF9u, 0xFFFFFFFAu, 0xFFFFFFFBu,
                        0xFFFFFFFCu, 0xFFFFFFFDu, 0xFFFFFFFEu, 0xFFFFFFFFu}) {
    char name[32];
    std::snprintf(name, sizeof name, "Size%08X", size);
    cases.push_back({name, riff(fmt_chunk(1, 1, 16000, 16).append(Bytes{}.str("data").u32(size).pad(64))),
                     "truncated WAV chunk: data"});
  }
  return cases;
}

class WavError : public testing::TestWithParam<ErrorCase> {};

TEST_P(WavError, ExactMessage) {
  const ErrorCase& c = GetParam();
  try {
    parse_wav(c.file.data, "bad.wav");
    FAIL() << "accepted";
  } catch (const std::runtime_error& e) {
    EXPECT_EQ(std::string(e.what()), c.message);
  }
}

INSTANTIATE_TEST_SUITE_P(Refused, WavError, testing::ValuesIn(error_cases()),
                         [](const auto& info) { return info.param.name; });

TEST(ReadWav, FileErrorsNameThePath) {
  test::TempDir tmp;
  EXPECT_THROW(
      {
        try {
          read_wav(tmp.path("missing.wav"));
        } catch (const std::runtime_error& e) {
          EXPECT_EQ(std::string(e.what()), "failed to open WAV: " + tmp.path("missing.wav"));
          throw;
        }
      },
      std::runtime_error);
  test::write_bytes(tmp.path("ok.wav"), test::pcm_wav(1, 16000, 16, {1, 2, 3}).data);
  EXPECT_EQ(read_wav(tmp.path("ok.wav")).samples[0].size(), 3u);
}

TEST(ReadWav, MillionEmptyChunksParseQuickly) {
  Bytes chunks = fmt_chunk(1, 1, 16000, 16);
  for (int i = 0; i < 1000000; ++i) chunks.str("zero").u32(0);
  chunks.append(data_chunk(Bytes{}.i16(1)));
  const Bytes file = riff(chunks);
  const auto start = std::chrono::steady_clock::now();
  const WavData wav = parse_wav(file.data, "many.wav");
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_EQ(wav.samples[0].size(), 1u);
  // A complexity guard, not a benchmark: a quadratic walk takes minutes here.
  EXPECT_LT(seconds, 1.0);
}

TEST(ReadWav, MaxChannelHeaderStaysSmall) {
  // 65535 channels and 3 frames: memory follows the data, not the header.
  Bytes body;
  for (int i = 0; i < 65535 * 3; ++i) body.i16(i & 0x7FFF);
  const WavData wav = parse_wav(riff(fmt_chunk(1, 65535, 16000, 16).append(data_chunk(body))).data, "wide.wav");
  ASSERT_EQ(wav.samples.size(), 65535u);
  EXPECT_EQ(wav.samples[65534].size(), 3u);
  EXPECT_EQ(wav.samples[1][2], ((65535 * 2 + 1) & 0x7FFF) / 32768.0);
  const WavData empty = parse_wav(riff(fmt_chunk(1, 65535, 16000, 32).append(data_chunk(Bytes{}.i16(0)))).data, "w");
  EXPECT_EQ(empty.samples.size(), 65535u);
  EXPECT_EQ(empty.samples[0].capacity(), 0u);
}

}  // namespace
}  // namespace sonderlark
