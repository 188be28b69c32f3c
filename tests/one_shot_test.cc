#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <regex>
#include <thread>

#include "audio/wav.h"
#include "support.h"

namespace sonderlark {
namespace {

namespace fs = std::filesystem;

const std::string kBanner =
    "Sonderlark v1.4.0 capture/live-global-mic/input-gain/direction/beamforming/event tool\n"
    "scope: Sonderscope only; no Halcyra integration; no system audio configuration changes\n";

// Four channels of noise from the source at asin(lag / 8), as a WAV file.
std::string noise_wav(int lag, std::size_t frames, uint32_t seed) {
  return test::pcm_wav(test::array_noise(lag, frames, 0.3, seed));
}

struct GoldenCase {
  std::string name;
  std::string input;
  std::vector<std::string> extra_args;
};

void PrintTo(const GoldenCase& c, std::ostream* os) { *os << c.name; }

std::vector<GoldenCase> golden_cases() {
  return {
      {"noise_lag5", noise_wav(5, 4000, 1), {}},
      {"silence", test::pcm_wav(std::vector<std::vector<double>>(4, std::vector<double>(3200, 0.0))), {}},
      {"stereo_48k_16bit", test::pcm_wav({test::white_noise(4800, 0.2, 21), test::white_noise(4800, 0.2, 22)}, 48000, 16), {}},
      {"clipping_gain", noise_wav(-2, 4000, 2), {"--input-gain-db", "36"}},
  };
}

std::string golden_path(const std::string& name, const std::string& ext) {
  return test::source_path("tests/golden/" + name + ext);
}

// Checks the timestamp's pattern, then masks it.
std::string mask_timestamp(const std::string& manifest) {
  const std::regex stamp(R"("timestamp": "\d{4}-\d{2}-\d{2}T\d{2}:\d{2}:\d{2}Z")");
  EXPECT_TRUE(std::regex_search(manifest, stamp));
  return std::regex_replace(manifest, stamp, "\"timestamp\": \"TIMESTAMP\"");
}

class GoldenRun : public testing::TestWithParam<GoldenCase> {};

// Set SONDERLARK_UPDATE_GOLDEN=1 to rewrite the files after a deliberate change.
TEST_P(GoldenRun, LogManifestAndBeamMatchBitExactness) {
  const GoldenCase& c = GetParam();
  test::TempDir tmp;
  test::write_file(tmp.path("in.wav"), c.input);
  std::vector<std::string> argv = {test::tool_path(), "--input-wav", "in.wav", "--beamformed", "beam.wav",
                                   "--event", "event.json", "--log", "run.log"};
  argv.insert(argv.end(), c.extra_args.begin(), c.extra_args.end());
  const test::RunResult r = test::run(argv, {}, tmp.dir.string());
  ASSERT_EQ(r.exit_code, 0) << r.out << r.err;
  const std::string log = test::read_file(tmp.path("run.log"));
  EXPECT_EQ(r.out, log);
  const std::string manifest = mask_timestamp(test::read_file(tmp.path("event.json")));
  const std::string beam = test::read_file(tmp.path("beam.wav"));
  EXPECT_TRUE(test::read_file(tmp.path("in.wav")) == c.input);  // the input is never altered

  if (std::getenv("SONDERLARK_UPDATE_GOLDEN") != nullptr) {
    test::write_file(golden_path(c.name, ".log"), log);
    test::write_file(golden_path(c.name, ".json"), manifest);
    test::write_file(golden_path(c.name, ".wav"), beam);
  }
  EXPECT_EQ(log, test::read_file(golden_path(c.name, ".log")));
  EXPECT_EQ(manifest, test::read_file(golden_path(c.name, ".json")));
  EXPECT_TRUE(beam == test::read_file(golden_path(c.name, ".wav"))) << "beam WAV bytes differ";

  const test::RunResult strict = test::run(
      {"python3", "-c", "import json, sys\ndef bad(c): raise ValueError(c)\njson.load(open(sys.argv[1]), parse_constant=bad)", tmp.path("event.json")});
  EXPECT_EQ(strict.exit_code, 0) << strict.err;  // no NaN or Infinity either
}

INSTANTIATE_TEST_SUITE_P(Runs, GoldenRun, testing::ValuesIn(golden_cases()),
                         [](const auto& info) { return info.param.name; });

// The real arecord records the file-backed device through the tool.
TEST(RealArecord, RecordsTheFileBackedDeviceExactly) {
  test::TempDir tmp;
  const std::string frames = test::s32_frames(test::array_noise(3, 24000, 0.4, 5));
  test::write_file(tmp.path("capture.raw"), frames);
  test::write_alsa_file_device(tmp.path("config"), "sonderlark_array", tmp.path("capture.raw"));
  const test::RunResult r = test::run({test::tool_path(), "--device", "sonderlark_array", "--duration", "1",
                                       "--output", tmp.path("raw.wav"), "--beamformed", tmp.path("beam.wav"),
                                       "--event", tmp.path("event.json"), "--log", tmp.path("run.log")},
                                      test::alsa_env(tmp.path("config")));
  ASSERT_EQ(r.exit_code, 0) << r.out << r.err;
  // arecord's WAV: 16000 frames of 16 bytes, exactly the device's first bytes.
  const WavData wav = read_wav(tmp.path("raw.wav"));
  EXPECT_EQ(std::vector<int32_t>({wav.channels, wav.sample_rate, wav.bits_per_sample}),
            std::vector<int32_t>({4, 16000, 32}));
  const std::string raw = test::read_file(tmp.path("raw.wav"));
  ASSERT_GE(raw.size(), 256000u);
  EXPECT_TRUE(raw.ends_with(frames.substr(0, 256000)));
  EXPECT_NE(r.out.find("\ndirection_lag_samples_ch0_to_ch3: 3\n"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("\nclean exit\n"), std::string::npos);
}

TEST(RealArecord, MissingDeviceFailsWithStatus10) {
  test::TempDir tmp;
  test::write_alsa_file_device(tmp.path("config"), "sonderlark_array", tmp.path("capture.raw"));
  const test::RunResult r = test::run({test::tool_path(), "--device", "no_such_device", "--output", "raw.wav",
                                       "--log", "run.log"},
                                      test::alsa_env(tmp.path("config")), tmp.dir.string());
  EXPECT_EQ(r.exit_code, 10);
  EXPECT_EQ(test::read_file(tmp.path("run.log")),
            kBanner + "device: no_such_device\n"
                      "capture command: arecord -D 'no_such_device' -f S32_LE -r 16000 -c 4 -d 5 -t wav 'raw.wav'\n"
                      "error: arecord capture failed with status 256\n");
  EXPECT_FALSE(fs::exists(tmp.path("build")));
}

// What a failed run leaves behind.
struct FailureCase {
  std::string name;
  std::vector<std::string> args;
  std::string last_line;       // the run's final line
  bool beam_written;
  bool summary_logged;         // diagnostics, summary and warnings reached the log
  std::string plant = "";      // "fifo NAME" or "link NAME": put there before the run
  long file_size_limit = 0;    // bytes, when the run has one (a write past it fails with EFBIG)
};

void PrintTo(const FailureCase& c, std::ostream* os) { *os << c.name; }

class FailureRoad : public testing::TestWithParam<FailureCase> {};

TEST_P(FailureRoad, Status20AndOnlyWhatWasDone) {
  const FailureCase& c = GetParam();
  test::TempDir tmp;
  test::write_file(tmp.path("good.wav"), noise_wav(2, 16000, 3));
  test::write_file(tmp.path("bad.wav"), "RIFF....WAVE but far too short");
  test::write_file(tmp.path("old_beam.wav"), "previous beam");
  test::write_file(tmp.path("old_event.json"), "previous manifest");
  fs::create_directory(tmp.path("event_dir"));
  test::write_file(tmp.path("target"), "not ours to change");
  if (c.plant.starts_with("fifo ")) {
    ASSERT_EQ(mkfifo(tmp.path(c.plant.substr(5)).c_str(), 0600), 0);
  }
  if (c.plant.starts_with("link ")) fs::create_symlink(tmp.path("target"), tmp.path(c.plant.substr(5)));
  std::vector<std::string> argv;
  if (c.file_size_limit > 0) {
    argv = {"prlimit", "--fsize=" + std::to_string(c.file_size_limit)};
  }
  argv.insert(argv.end(), {test::tool_path(), "--log", "run.log"});
  argv.insert(argv.end(), c.args.begin(), c.args.end());
  const test::RunResult r = test::run(argv, {}, tmp.dir.string());
  EXPECT_EQ(r.exit_code, 20);
  EXPECT_EQ(r.out, test::read_file(tmp.path("run.log")));
  EXPECT_TRUE(r.out.ends_with(c.last_line + "\n")) << r.out;
  EXPECT_EQ(r.out.find("clean exit"), std::string::npos);
  EXPECT_EQ(r.out.find("raw_wav: "), std::string::npos);
  EXPECT_EQ(r.out.find("beamforming_lags: ") != std::string::npos, c.summary_logged);
  EXPECT_EQ(test::read_file(tmp.path("old_event.json")), "previous manifest");
  EXPECT_EQ(test::read_file(tmp.path("old_beam.wav")) != "previous beam", c.beam_written);
  EXPECT_EQ(test::read_file(tmp.path("bad.wav")), "RIFF....WAVE but far too short");
  EXPECT_EQ(test::read_file(tmp.path("target")), "not ours to change");
  for (const auto& entry : fs::directory_iterator(tmp.dir)) {  // no partial file left behind
    EXPECT_FALSE(!entry.is_symlink() && entry.is_regular_file() && entry.path().extension() == ".tmp") << entry.path();
  }
}

INSTANTIATE_TEST_SUITE_P(
    Roads, FailureRoad,
    testing::Values(
        FailureCase{"MissingInput", {"--input-wav", "nope.wav", "--beamformed", "old_beam.wav", "--event", "old_event.json"},
                    "error: failed to open WAV: nope.wav", false, false},
        FailureCase{"MalformedInput", {"--input-wav", "bad.wav", "--beamformed", "old_beam.wav", "--event", "old_event.json"},
                    "error: not a RIFF/WAVE file: bad.wav", false, false},
        FailureCase{"BeamInMissingDirectory",
                    {"--input-wav", "good.wav", "--beamformed", "missing/beam.wav", "--event", "old_event.json"},
                    "error: failed to write WAV: missing/beam.wav", false, false},
        FailureCase{"ManifestUnwritable", {"--input-wav", "good.wav", "--beamformed", "old_beam.wav", "--event", "event_dir"},
                    "error: failed to write event JSON: event_dir", true, true},
        // Beam WAV of 32 KiB against a 16 KiB limit: no SIGXFSZ, no cut-short file.
        FailureCase{"BeamPastTheFileSizeLimit",
                    {"--input-wav", "good.wav", "--beamformed", "old_beam.wav", "--event", "old_event.json"},
                    "error: failed to write WAV: old_beam.wav", false, false, "", 16384},
        FailureCase{"LinkAtTheBeamsTemporaryFile",
                    {"--input-wav", "good.wav", "--beamformed", "old_beam.wav", "--event", "old_event.json"},
                    "error: failed to write WAV: old_beam.wav", false, false, "link old_beam.wav.tmp"},
        FailureCase{"FifoAtTheManifestsTemporaryFile",
                    {"--input-wav", "good.wav", "--beamformed", "old_beam.wav", "--event", "old_event.json"},
                    "error: failed to write event JSON: old_event.json", true, true, "fifo old_event.json.tmp"}),
    [](const auto& info) { return info.param.name; });

TEST(OneShotRun, LogInMissingDirectoryStillRunsOnStandardOutput) {
  test::TempDir tmp;
  test::write_file(tmp.path("in.wav"), noise_wav(1, 2000, 4));
  const test::RunResult r = test::run({test::tool_path(), "--log", "missing/run.log", "--skip-capture", "--output",
                                       "in.wav", "--beamformed", "b.wav", "--event", "e.json"},
                                      {}, tmp.dir.string());
  EXPECT_EQ(r.exit_code, 0);
  EXPECT_TRUE(r.out.starts_with(kBanner + "device: hw:1,0\ncapture skipped; analyzing output WAV path: in.wav\n"));
  EXPECT_TRUE(r.out.ends_with("raw_wav: in.wav\nbeamformed_wav: b.wav\nevent_json: e.json\nclean exit\n"));
  EXPECT_EQ(r.err, "");
  EXPECT_FALSE(fs::exists(tmp.path("missing")));
}

// A reader that has gone away before the run writes a line: the run goes
// on to its end and its files, without SIGPIPE.
TEST(OneShotRun, StandardOutputClosedByTheReaderIsNotAnError) {
  test::TempDir tmp;
  test::write_file(tmp.path("in.wav"), noise_wav(1, 2000, 4));
  const test::RunResult r = test::run(
      {"python3", "-c",
       "import os, subprocess, sys\nr, w = os.pipe()\nos.close(r)\n"
       "sys.exit(subprocess.run(sys.argv[1:], stdout=w).returncode)",
       test::tool_path(), "--input-wav", "in.wav", "--log", "run.log", "--beamformed", "b.wav", "--event", "e.json"},
      {}, tmp.dir.string());
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_TRUE(test::read_file(tmp.path("run.log")).ends_with("event_json: e.json\nclean exit\n"));
  EXPECT_TRUE(fs::exists(tmp.path("b.wav")));
  EXPECT_TRUE(fs::exists(tmp.path("e.json")));
}

// Another process cuts the input short while the run reads it: the reader's
// message and status 20, never a crash. The run is stopped once it has read
// part of the data, the file is cut, and the run continues.
TEST(OneShotRun, InputCutShortDuringTheReadEndsWithTheReadersMessage) {
  test::TempDir tmp;
  const std::string input = tmp.path("long.wav");
  std::string bytes = test::pcm_wav(std::vector<std::vector<double>>(4));  // the header alone
  const uint32_t data_size = 8000000 * 16;                                 // 128 MB of frames
  std::string sizes;
  write_le32(sizes, 36 + data_size);
  write_le32(sizes, data_size);
  bytes.replace(4, 4, sizes.substr(0, 4)).replace(40, 4, sizes.substr(4));
  bytes.resize(44 + data_size, '\x11');
  test::write_file(input, bytes);
  const int tool = test::spawn({test::tool_path(), "--input-wav", input, "--log", "", "--beamformed",
                                tmp.path("b.wav"), "--event", tmp.path("e.json")},
                               {}, tmp.path("out"), tmp.path("err"));
  // Stop it once /proc/PID/io shows more than 16 MB read, cut the file, go on.
  bool caught = false;
  for (int i = 0; i < 20000 && !caught; ++i) {
    const std::string io = test::read_file("/proc/" + std::to_string(tool) + "/io");
    const std::size_t at = io.find("rchar: ");
    if (at != std::string::npos && std::stoll(io.substr(at + 7)) > (16 << 20)) {
      kill(tool, SIGSTOP);
      caught = true;
    } else {
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
  }
  fs::resize_file(input, 1 << 20);
  kill(tool, SIGCONT);
  EXPECT_EQ(test::wait_child(tool), 20);
  ASSERT_TRUE(caught) << "the run ended before it could be stopped mid-read";
  EXPECT_TRUE(test::read_file(tmp.path("out")).ends_with("error: truncated WAV chunk: data\n"));
}

// A FIFO whose writer never stops: the run reads what the header describes
// and ends; the writer meets a closed pipe.
TEST(OneShotRun, EndlessStreamIsReadAsFarAsItsHeaderSays) {
  test::TempDir tmp;
  const std::string fifo = tmp.path("endless.wav");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  // The header of one second; the data follow from the writer.
  test::write_file(tmp.path("header"), test::pcm_wav(std::vector<std::vector<double>>(4, std::vector<double>(16000))).substr(0, 44));
  const int writer = test::spawn({"sh", "-c", "cat \"$0\" /dev/zero > \"$1\"", tmp.path("header"), fifo}, {},
                                 tmp.path("w.out"), tmp.path("w.err"));
  const test::RunResult r = test::run({test::tool_path(), "--input-wav", fifo, "--log", "", "--beamformed",
                                       tmp.path("b.wav"), "--event", tmp.path("e.json")});
  EXPECT_EQ(r.exit_code, 0) << r.out;
  EXPECT_NE(r.out.find("\nduration_seconds: 1.000000\n"), std::string::npos) << r.out;
  kill(writer, SIGTERM);  // in case it still waits
  test::wait_child(writer);
}

// A full file system (a small tmpfs, filled up): the write that fails is
// reported, nothing cut short is left, and an earlier file stays.
TEST(OneShotRun, FullDiskFailsTheWriteAndKeepsTheEarlierFile) {
  test::TempDir tmp;
  const std::string full = tmp.path("full");
  fs::create_directory(full);
  if (test::run({"mount", "-t", "tmpfs", "-o", "size=64k", "tmpfs", full}).exit_code != 0) {
    GTEST_SKIP() << "cannot mount a small tmpfs here (needs root)";
  }
  struct Unmount {
    std::string path;
    ~Unmount() { test::run({"umount", path}); }
  } unmount{full};
  test::write_file(full + "/b.wav", "previous beam");
  test::write_file(full + "/e.json", "previous manifest");
  test::run({"sh", "-c", "cat /dev/zero > \"$0\"/filler", full});  // until ENOSPC
  test::write_file(tmp.path("in.wav"), noise_wav(1, 2000, 4));
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      {{"--beamformed", full + "/b.wav", "--event", tmp.path("e.json")}, "error: failed to write WAV: " + full + "/b.wav"},
      {{"--beamformed", tmp.path("b.wav"), "--event", full + "/e.json"},
       "error: failed to write event JSON: " + full + "/e.json"},
  };
  for (const auto& [paths, last_line] : cases) {
    SCOPED_TRACE(last_line);
    std::vector<std::string> argv = {test::tool_path(), "--input-wav", tmp.path("in.wav"), "--log", ""};
    argv.insert(argv.end(), paths.begin(), paths.end());
    const test::RunResult r = test::run(argv);
    EXPECT_EQ(r.exit_code, 20);
    EXPECT_TRUE(r.out.ends_with(last_line + "\n")) << r.out;
    EXPECT_EQ(test::read_file(full + "/b.wav"), "previous beam");
    EXPECT_EQ(test::read_file(full + "/e.json"), "previous manifest");
    EXPECT_FALSE(fs::exists(full + "/b.wav.tmp"));
    EXPECT_FALSE(fs::exists(full + "/e.json.tmp"));
  }
}

// Control bytes and bytes that are not UTF-8 in a device name or a path
// still give a manifest that a strict parser reads.
TEST(OneShotRun, HostileTextStaysValidJson) {
  test::TempDir tmp;
  const std::string odd = "in\x1b[1m\x01\xff.wav";
  test::write_file(tmp.path(odd), noise_wav(1, 2000, 4));
  const test::RunResult r = test::run({test::tool_path(), "--device", "hw\x02\xc3", "--input-wav", odd, "--log", "",
                                       "--beamformed", "b.wav", "--event", "e.json"},
                                      {}, tmp.dir.string());
  ASSERT_EQ(r.exit_code, 0) << r.out;
  const test::RunResult parsed = test::run(
      {"python3", "-c", "import json, sys\nd = json.load(open(sys.argv[1], encoding='utf-8'))\n"
                        "print(json.dumps([d['device'], d['raw_wav']]))",
       tmp.path("e.json")});
  EXPECT_EQ(parsed.exit_code, 0) << parsed.err;
  EXPECT_EQ(parsed.out, "[\"hw\\u0002\\ufffd\", \"in\\u001b[1m\\u0001\\ufffd.wav\"]\n");
}

}  // namespace
}  // namespace sonderlark
