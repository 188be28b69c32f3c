#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <stdexcept>

#include "audio/wav.h"
#include "support.h"
#include "util/process.h"
#include "util/text.h"

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
  // The block conversion gives the same on the table, and on every step,
  // every half step and the doubles either side of each.
  std::vector<double> x;
  for (const Row& row : rows) x.push_back(row.x);
  for (int k = -32768; k <= 32767; ++k) {
    for (double v : {k / 32767.0, (k + 0.5) / 32767.0}) {
      x.insert(x.end(), {v, std::nextafter(v, -2.0), std::nextafter(v, 2.0)});
    }
  }
  std::vector<int16_t> block(x.size());
  pcm16_block(x.data(), x.size(), block.data());
  for (std::size_t i = 0; i < x.size(); ++i) ASSERT_EQ(block[i], pcm16_from_sample(x[i])) << x[i];
}

// The beam WAVs of the golden runs hold the writer's bytes; here only the
// empty case and what a reader independent of ours makes of a file.
TEST(WriteMonoWav, EmptyFileAndPythonsReader) {
  test::TempDir tmp;
  write_mono_wav(tmp.path("e.wav"), 48000, {});
  EXPECT_EQ(test::read_file(tmp.path("e.wav")), test::pcm_wav({{}}, 48000, 16));
  write_mono_wav(tmp.path("r.wav"), 22050, std::vector<double>(1001, 0.25));
  EXPECT_EQ(run_command("python3 -c " +
                        shell_quote("import sys, wave\nw = wave.open(sys.argv[1])\nprint(w.getnchannels(), "
                                    "w.getsampwidth() * 8, w.getframerate(), w.getnframes(), w.readframes(1).hex())") +
                        " " + shell_quote(tmp.path("r.wav")))
                .output,
            "1 16 22050 1001 0020\n");
}

}  // namespace
}  // namespace sonderlark
