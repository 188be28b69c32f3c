// Recordings longer than memory or than one WAV file: a capture arecord
// splits at 2 GiB, and an analysis under a small address-space limit. Both
// move gigabytes, so they run in optimised builds only (a sanitizer build
// reserves terabytes of address space and runs the analysis tens of times
// slower); the Release run of the suite covers them.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <filesystem>

#include "support.h"

namespace sonderlark {
namespace {

namespace fs = std::filesystem;

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif
#else
constexpr bool kSanitized = false;
#endif

#define SKIP_WHEN_SANITIZED()                                                          \
  if (kSanitized) GTEST_SKIP() << "moves gigabytes: runs in the Release build's suite"

// The lines of `text` that start with `prefix`.
std::vector<std::string> lines_starting(const std::string& text, const std::string& prefix) {
  std::vector<std::string> found;
  std::size_t at = 0;
  while (at < text.size()) {
    const std::size_t end = text.find('\n', at);
    const std::string line = text.substr(at, end == std::string::npos ? std::string::npos : end - at);
    if (line.starts_with(prefix)) found.push_back(line);
    if (end == std::string::npos) break;
    at = end + 1;
  }
  return found;
}

// Two and a half hours through the real arecord on the file-backed device
// (unpaced, so it takes seconds): arecord writes raw-01.wav (2 GiB) and
// raw-02.wav, and the run analyses both as one recording.
TEST(LongCapture, SplitByArecordIsAnalysedAsOneRecording) {
  SKIP_WHEN_SANITIZED();
  test::TempDir tmp;
  test::write_file(tmp.path("capture.raw"), test::s32_frames(test::array_noise(3, 160000, 0.3, 9)));
  test::write_alsa_file_device(tmp.path("config"), "sonderlark_array", tmp.path("capture.raw"));
  const test::RunResult r = test::run({test::tool_path(), "--device", "sonderlark_array", "--duration", "9000",
                                       "--output", "raw.wav", "--beamformed", "beam.wav", "--event", "event.json",
                                       "--log", "run.log"},
                                      test::alsa_env(tmp.path("config")), tmp.dir.string());
  ASSERT_EQ(r.exit_code, 0) << r.out << r.err;
  EXPECT_EQ(fs::file_size(tmp.path("raw-01.wav")), 2147483692u);
  EXPECT_FALSE(fs::exists(tmp.path("raw.wav")));
  const std::string log = test::read_file(tmp.path("run.log"));
  EXPECT_EQ(lines_starting(log, "capture split"),
            std::vector<std::string>{"capture split by arecord into 2 files: raw-01.wav .. raw-02.wav"});
  // Right after the capture command.
  EXPECT_NE(log.find("-t wav 'raw.wav'\ncapture split by arecord into 2 files: raw-01.wav .. raw-02.wav\n"
                     "sample_rate: 16000\nchannels: 4\nduration_seconds: 9000.000000\n"),
            std::string::npos)
      << log;
  const std::string manifest = test::read_file(tmp.path("event.json"));
  EXPECT_NE(manifest.find("\"duration_seconds\": 9000.000,"), std::string::npos) << manifest;
  EXPECT_NE(manifest.find("\"raw_wav\": \"raw-01.wav\","), std::string::npos) << manifest;
  EXPECT_EQ(fs::file_size(tmp.path("beam.wav")), 44u + 2u * 9000u * 16000u);
  EXPECT_TRUE(log.ends_with("clean exit\n"));
}

// A part with another format ends the run with status 20 and names it. The
// parts come from a stand-in arecord: the real one never writes such a pair.
TEST(LongCapture, APartInAnotherFormatEndsTheRun) {
  test::TempDir tmp;
  fs::create_directory(tmp.path("bin"));
  test::write_file(tmp.path("four.wav"), test::pcm_wav(test::array_noise(3, 1600, 0.3, 1)));
  test::write_file(tmp.path("two.wav"), test::pcm_wav({test::white_noise(1600, 0.3, 2), test::white_noise(1600, 0.3, 3)}));
  // The stand-in writes STEM-01.wav and STEM-02.wav for its last argument.
  test::write_file(tmp.path("bin/arecord"), "#!/bin/sh\nfor last; do :; done\nstem=${last%.wav}\n"
                                            "cp '" + tmp.path("four.wav") + "' \"$stem-01.wav\"\n"
                                            "cp '" + tmp.path("two.wav") + "' \"$stem-02.wav\"\n");
  fs::permissions(tmp.path("bin/arecord"), fs::perms::owner_all);
  const test::RunResult r = test::run({test::tool_path(), "--duration", "9000", "--output", "raw.wav", "--log",
                                       "run.log", "--beamformed", "beam.wav", "--event", "event.json"},
                                      {{"PATH", tmp.path("bin") + ":" + std::getenv("PATH")}}, tmp.dir.string());
  EXPECT_EQ(r.exit_code, 20);
  const std::string log = test::read_file(tmp.path("run.log"));
  EXPECT_TRUE(log.ends_with("capture split by arecord into 2 files: raw-01.wav .. raw-02.wav\n"
                            "error: split capture part raw-02.wav differs in format from raw-01.wav\n"))
      << log;
  EXPECT_FALSE(fs::exists(tmp.path("beam.wav")));
  EXPECT_FALSE(fs::exists(tmp.path("event.json")));
}

// A part left by an earlier capture does not count: a capture that fits
// one file is analysed as ever.
TEST(LongCapture, AnOldPartIsIgnored) {
  test::TempDir tmp;
  test::write_file(tmp.path("capture.raw"), test::s32_frames(test::array_noise(3, 24000, 0.3, 9)));
  test::write_alsa_file_device(tmp.path("config"), "sonderlark_array", tmp.path("capture.raw"));
  test::write_file(tmp.path("raw-01.wav"), "an hour-old part of another capture");
  const struct utimbuf hour_ago {time(nullptr) - 3600, time(nullptr) - 3600};
  ASSERT_EQ(utime(tmp.path("raw-01.wav").c_str(), &hour_ago), 0);
  const test::RunResult r = test::run({test::tool_path(), "--device", "sonderlark_array", "--duration", "1",
                                       "--output", "raw.wav", "--beamformed", "beam.wav", "--event", "event.json",
                                       "--log", "run.log"},
                                      test::alsa_env(tmp.path("config")), tmp.dir.string());
  EXPECT_EQ(r.exit_code, 0) << r.out << r.err;
  const std::string log = test::read_file(tmp.path("run.log"));
  EXPECT_EQ(log.find("capture split"), std::string::npos) << log;
  EXPECT_NE(log.find("\nduration_seconds: 1.000000\n"), std::string::npos) << log;
  EXPECT_NE(log.find("\nraw_wav: raw.wav\n"), std::string::npos) << log;
}

// A folder may be shared: a part counts only when this capture wrote it, and
// a new part that is a link, not a regular file or another user's ends the
// run. The stand-in arecord writes STEM-01.wav (or the output itself) and
// then does what the row's `during` says, as someone racing the capture
// would; `before` is planted before the run.
struct PartCase {
  std::string name;
  std::string before;  // shell, in the folder, before the run
  std::string during;  // shell, in the folder, after the stand-in wrote its file
  bool splits;         // the stand-in writes raw-01.wav (else raw.wav)
  int exit_code;
  std::string log_end;  // the log's last lines
  std::string log_has = "";  // and lines elsewhere in it
};

void PrintTo(const PartCase& c, std::ostream* os) { *os << c.name; }

class SplitParts : public testing::TestWithParam<PartCase> {};

TEST_P(SplitParts, OnlyThisCapturesOwnParts) {
  const PartCase& c = GetParam();
  if ((c.before + c.during).find("chown") != std::string::npos && geteuid() != 0) {
    GTEST_SKIP() << "needs root to give a file to another user";
  }
  test::TempDir tmp;
  fs::create_directory(tmp.path("bin"));
  test::write_file(tmp.path("four.wav"), test::pcm_wav(test::array_noise(3, 1600, 0.3, 1)));
  ASSERT_EQ(test::run({"sh", "-c", c.before}, {}, tmp.dir.string()).exit_code, 0);
  test::write_file(tmp.path("bin/arecord"), "#!/bin/sh\nfor last; do :; done\n"
                                            "cp four.wav \"" + std::string(c.splits ? "${last%.wav}-01.wav" : "$last") +
                                                "\"\n" + c.during + "\n");
  fs::permissions(tmp.path("bin/arecord"), fs::perms::owner_all);
  const test::RunResult r =
      test::run({"timeout", "60", test::tool_path(), "--duration", "9000", "--output", "raw.wav", "--log", "run.log",
                 "--beamformed", "beam.wav", "--event", "event.json"},
                {{"PATH", tmp.path("bin") + ":" + std::getenv("PATH")}}, tmp.dir.string());
  EXPECT_EQ(r.exit_code, c.exit_code);
  const std::string log = test::read_file(tmp.path("run.log"));
  EXPECT_TRUE(log.ends_with(c.log_end)) << log;
  EXPECT_NE(log.find(c.log_has), std::string::npos) << log;
  EXPECT_EQ(fs::exists(tmp.path("event.json")), c.exit_code == 0);
}

const std::string kCaptured = "capture command: arecord -D 'hw:1,0' -f S32_LE -r 16000 -c 4 -d 9000 -t wav 'raw.wav'\n";
const std::string kOnePart = "capture split by arecord into 1 files: raw-01.wav .. raw-01.wav\n";
const std::string kOneFile = "raw_wav: raw.wav\nbeamformed_wav: beam.wav\nevent_json: event.json\nclean exit\n";
const std::string kFirstPart = "raw_wav: raw-01.wav\nbeamformed_wav: beam.wav\nevent_json: event.json\nclean exit\n";

INSTANTIATE_TEST_SUITE_P(
    Folders, SplitParts,
    testing::Values(
        PartCase{"stale_part", "cp four.wav raw-02.wav && touch -d 2020-01-01 raw-02.wav", "", true, 0, kFirstPart,
                 kCaptured + kOnePart + "sample_rate: 16000\nchannels: 4\nduration_seconds: 0.100000\n"},
        PartCase{"foreign_part", "", "cp four.wav raw-02.wav && chown nobody raw-02.wav", true, 20,
                 kCaptured + "error: split capture part raw-02.wav refused: owned by another user\n"},
        PartCase{"fifo_part", "", "mkfifo raw-02.wav", true, 20,
                 kCaptured + "error: split capture part raw-02.wav refused: not a regular file\n"},
        PartCase{"symlink_part", "", "ln -s four.wav raw-02.wav", true, 20,
                 kCaptured + "error: split capture part raw-02.wav refused: symbolic link\n"},
        PartCase{"planted_first_part", "cp four.wav raw-01.wav && chown nobody raw-01.wav && touch -d '+1 hour' raw-01.wav",
                 "", false, 0, kOneFile, kCaptured + "sample_rate: 16000\nchannels: 4\nduration_seconds: 0.100000\n"}),
    [](const auto& info) { return info.param.name; });

// Thirty minutes (461 MB of samples) analysed within 256 MiB of address
// space: the whole-record analysis needed about 1.3 GB for it.
TEST(LongRecording, ThirtyMinutesWithin256MiBOfAddressSpace) {
  SKIP_WHEN_SANITIZED();
  test::TempDir tmp;
  test::write_file(tmp.path("minute.wav"), test::pcm_wav({test::white_noise(16000 * 60, 0.3, 4)}, 16000, 16));
  ASSERT_EQ(test::run({test::sim_path(), "--input", tmp.path("minute.wav"), "--output", tmp.path("long.wav"),
                       "--lag", "3", "--noise-rms", "0.001", "--repeat", "30"})
                .exit_code,
            0);
  ASSERT_EQ(fs::file_size(tmp.path("long.wav")), 44u + 30u * 60u * 16000u * 16u);
  const test::RunResult r =
      test::run({"sh", "-c", "ulimit -v 262144 && exec \"$@\"", "sh", test::tool_path(), "--input-wav", "long.wav",
                 "--beamformed", "beam.wav", "--event", "event.json", "--log", "run.log"},
                {}, tmp.dir.string());
  EXPECT_EQ(r.exit_code, 0) << r.out << r.err;
  const std::string log = test::read_file(tmp.path("run.log"));
  EXPECT_NE(log.find("\nduration_seconds: 1800.000000\n"), std::string::npos) << log;
  EXPECT_NE(log.find("\ndirection_lag_samples_ch0_to_ch3: 3\n"), std::string::npos) << log;
  EXPECT_TRUE(log.ends_with("clean exit\n"));
}

}  // namespace
}  // namespace sonderlark
