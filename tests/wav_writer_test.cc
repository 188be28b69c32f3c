#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <stdexcept>

#include "audio/wav.h"
#include "support.h"

namespace sonderlark {
namespace {

TEST(Pcm16FromSample, BoundaryTable) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const double inf = std::numeric_limits<double>::infinity();
  struct Row {
    double x;
    int16_t v;
  };
  const Row rows[] = {
      {1.0, 32767},   {0.5, 16384},   {0.0, 0},        {-0.0, 0},       {-0.5, -16384},   {-1.0, -32767},
      {1.7, 32767},   {-3.0, -32767}, {inf, 32767},    {-inf, -32767},  {nan, 0},         {1.0000001, 32767},
      // a hair either side of a half step: 0.5/32767 is exactly half of one step
      {0.5 / 32767 - 1e-12, 0}, {0.5 / 32767 + 1e-12, 1}, {-0.5 / 32767 - 1e-12, -1}, {0.25, 8192},
      {-0.75, -24575},
  };
  for (std::size_t i = 0; i < std::size(rows); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(pcm16_from_sample(rows[i].x), rows[i].v) << rows[i].x;
  }
}

TEST(WriteMonoWav, GoldenBytes) {
  test::TempDir tmp;
  const std::string path = tmp.path("beam.wav");
  test::write_file(path, std::string(1000, 'x'));  // a longer old file leaves no tail
  write_mono_wav(path, 16000, {1.0, 0.5, 0.0, -0.5, -1.0, 1.7, -3.0, std::nan("")});
  test::Bytes expected;
  expected.str("RIFF").u32(36 + 16).str("WAVE").str("fmt ").u32(16).u16(1).u16(1).u32(16000).u32(32000);
  expected.u16(2).u16(16).str("data").u32(16);
  expected.data.insert(expected.data.end(), {0xFF, 0x7F, 0x00, 0x40, 0x00, 0x00, 0x00, 0xC0, 0x01, 0x80, 0xFF, 0x7F,
                                             0x01, 0x80, 0x00, 0x00});
  EXPECT_EQ(test::read_bytes(path), expected.data);
}

TEST(WriteMonoWav, EmptyAnd48k) {
  test::TempDir tmp;
  write_mono_wav(tmp.path("e.wav"), 48000, {});
  const std::vector<uint8_t> bytes = test::read_bytes(tmp.path("e.wav"));
  test::Bytes expected;
  expected.str("RIFF").u32(36).str("WAVE").str("fmt ").u32(16).u16(1).u16(1).u32(48000).u32(96000);
  expected.u16(2).u16(16).str("data").u32(0);
  EXPECT_EQ(bytes, expected.data);
}

TEST(WriteMonoWav, UnopenablePathThrowsAndWritesNothing) {
  test::TempDir tmp;
  for (const std::string& path : {tmp.path("no/such/dir/b.wav"), tmp.dir.string()}) {
    try {
      write_mono_wav(path, 16000, {0.1});
      FAIL() << path;
    } catch (const std::runtime_error& e) {
      EXPECT_EQ(std::string(e.what()), "failed to write WAV: " + path);
    }
  }
}

TEST(WriteMonoWav, ReadBackByOurReaderAndByPython) {
  test::TempDir tmp;
  const std::string path = tmp.path("round.wav");
  std::vector<double> samples;
  for (int i = 0; i < 1001; ++i) samples.push_back(std::sin(i * 0.05) * 0.8);
  write_mono_wav(path, 22050, samples);

  const WavData back = read_wav(path);
  ASSERT_EQ(back.channels, 1);
  EXPECT_EQ(back.sample_rate, 22050);
  EXPECT_EQ(back.bits_per_sample, 16);
  ASSERT_EQ(back.samples[0].size(), samples.size());
  for (std::size_t i = 0; i < samples.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(back.samples[0][i], pcm16_from_sample(samples[i]) / 32768.0);
  }

  // An independent reader: Python's wave module.
  const test::RunResult py = test::run(
      {"python3", "-c",
       "import sys, wave\nw = wave.open(sys.argv[1])\n"
       "print(w.getnchannels(), w.getsampwidth() * 8, w.getframerate(), w.getnframes())",
       path});
  ASSERT_EQ(py.exit_code, 0) << py.err;
  EXPECT_EQ(py.out, "1 16 22050 1001\n");
}

}  // namespace
}  // namespace sonderlark
