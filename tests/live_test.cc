#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <sstream>
#include <thread>

#include "audio/wav.h"
#include "dsp/beam.h"
#include "dsp/direction.h"
#include "dsp/gain.h"
#include "live/live_mode.h"
#include "report/live_status.h"
#include "support.h"

namespace sonderlark {
namespace {

namespace fs = std::filesystem;
using Env = std::map<std::string, std::optional<std::string>>;

constexpr std::size_t kPeriod = 65536;  // the simulated source repeats with this period

// Interleaved S32_LE frames of periodic noise reaching channel c round(c x lag / 3)
// samples after channel 0.
std::vector<uint8_t> array_frames(std::size_t frames, int lag, uint32_t seed = 3) {
  const std::vector<double> source = test::white_noise(kPeriod, 0.3, seed);
  std::vector<uint8_t> bytes;
  bytes.reserve(frames * 16);
  for (std::size_t f = 0; f < frames; ++f) {
    for (int c = 0; c < 4; ++c) {
      const std::size_t delay = static_cast<std::size_t>(std::lround(c * lag / 3.0) + 16);
      const double v = source[(f + kPeriod - delay) % kPeriod];
      const uint32_t s = static_cast<uint32_t>(static_cast<int32_t>(std::lround(v * 2147483647.0)));
      for (int b = 0; b < 4; ++b) bytes.push_back(static_cast<uint8_t>(s >> (8 * b)));
    }
  }
  return bytes;
}

// A value of the status file, through Python's strict JSON parser.
std::string status_value(const std::string& path, const std::string& key) {
  const test::RunResult r = test::run(
      {"python3", "-c",
       "import json, sys\n"
       "def bad(c): raise ValueError(c)\n"
       "d = json.load(open(sys.argv[1]), parse_constant=bad)\n"
       "assert len(d) == 20\n"
       "print(json.dumps(d[sys.argv[2]]))",
       path, key});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  return r.out.substr(0, r.out.size() - (r.out.empty() ? 0 : 1));
}

int count(const std::string& text, const std::string& what) {
  int n = 0;
  for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

int chunks_in(const std::string& status_path) { return std::stoi(status_value(status_path, "chunks_processed")); }

// A live run on the real arecord reading a file-backed ALSA device: paced
// at real time (the same frames at any build's speed, silence after their
// end), or unpaced (as fast as the tool reads; what follows the file's end
// is not defined).
struct RealDevice {
  test::TempDir tmp;
  std::vector<uint8_t> frames;
  std::optional<test::PacedDevice> paced;
  RealDevice(std::size_t frame_count, bool pace) : frames(array_frames(frame_count, 4)) {
    fs::create_directories(tmp.path("state"));
    test::write_bytes(tmp.path("frames.raw"), frames);
    if (pace) {
      paced.emplace(tmp);
    } else {
      test::write_alsa_file_device(tmp.path("config"), "sonderlark_array", tmp.path("frames.raw"));
    }
  }
  std::vector<std::string> args(const std::string& duration, const std::string& pcm) const {
    return {test::tool_path(), "--live", "--device", "sonderlark_array", "--live-duration", duration,
            "--pcm-output", pcm, "--event-output", tmp.path("state/status.json"), "--log", tmp.path("live.log")};
  }
  Env env() const { return {{"XDG_CONFIG_HOME", tmp.path("config")}}; }
  std::string status() const { return tmp.path("state/status.json"); }
};

void expect_finite_clean_end(const test::RunResult& r, const std::string& status_path) {
  EXPECT_EQ(r.exit_code, 0) << r.out;
  EXPECT_TRUE(r.out.ends_with("live clean finite-duration exit\n")) << r.out;
  EXPECT_EQ(status_value(status_path, "status"), "\"stopped\"");
  EXPECT_EQ(status_value(status_path, "live_processing"), "false");
  EXPECT_EQ(status_value(status_path, "pcm_output_connected"), "false");
}

TEST(LiveRealArecord, FiniteRunWritesExactlyTheBeamsToARegularFile) {
  RealDevice device(64000, true);
  test::write_file(device.tmp.path("out.pcm"), "");
  const test::RunResult r = test::run(device.args("2", device.tmp.path("out.pcm")), device.env());
  expect_finite_clean_end(r, device.status());
  const int chunks = chunks_in(device.status());
  ASSERT_GT(chunks, 0);
  EXPECT_TRUE(test::read_file(device.tmp.path("out.pcm")) == test::library_beam_bytes(device.frames, 1024, chunks));
  EXPECT_EQ(status_value(device.status(), "direction_angle_degrees"), "30.0");
  EXPECT_EQ(status_value(device.status(), "direction_samples_source"), "\"processed-live\"");
  // The real arecord, its pipe closed, ends with exit code 1 ("Broken pipe").
  EXPECT_EQ(status_value(device.status(), "arecord_exit_code"), "1");
  EXPECT_EQ(r.out, test::read_file(device.tmp.path("live.log")));

  const std::string start =
      "device: sonderlark_array\n"
      "Sonderlark live mode: raw Kinect mic array -> input gain -> beamforming -> mono s16le PCM\n"
      "live_pcm_output: " + device.tmp.path("out.pcm") + "\n"
      "live_duration_seconds: 2\nlive_chunk_frames: 1024\n"
      "live_event_json: " + device.status() + "\n"
      "live capture command: arecord -D 'sonderlark_array' -f S32_LE -r 16000 -c 4 -t raw\n"
      "live arecord stderr: " + device.status() + ".arecord.stderr\n"
      "live PCM output connected: " + device.tmp.path("out.pcm") + "\n"
      "live chunk=1 processed_rms_ch0=";
  EXPECT_NE(r.out.find(start), std::string::npos) << r.out;
  // Chunk lines only for chunk 1 and every 50th.
  std::istringstream lines(r.out);
  int chunk_lines = 0;
  for (std::string line; std::getline(lines, line);) {
    if (!line.starts_with("live chunk=")) continue;
    const int n = std::stoi(line.substr(11));
    EXPECT_TRUE(n == 1 || n % 50 == 0) << line;
    ++chunk_lines;
  }
  EXPECT_EQ(chunk_lines, 1 + chunks / 50);
  EXPECT_NE(r.out.find("\nlive chunks_processed: " + std::to_string(chunks) + "\n"), std::string::npos);
}

// Spawns a reader that copies FIFO to OUT and waits until it is blocked
// opening the FIFO. It widens the pipe to 1 MiB, so that a moment off the
// CPU on a busy machine does not make the writer drop samples.
int spawn_fifo_reader(const std::string& fifo, const std::string& out, const std::string& err) {
  const int pid = test::spawn({"python3", "-c",
                               "import fcntl, os, sys\n"
                               "fd = os.open(sys.argv[1], os.O_RDONLY)\n"
                               "fcntl.fcntl(fd, 1031, 1 << 20)  # F_SETPIPE_SZ\n"
                               "with open(sys.argv[2], 'wb') as out:\n"
                               "    while data := os.read(fd, 65536):\n"
                               "        out.write(data); out.flush()",
                               fifo, out},
                              {}, out + ".stdout", err);
  // Ready once it waits in open() for a writer, or already has the FIFO open.
  const std::string proc = "/proc/" + std::to_string(pid);
  for (int i = 0; i < 500; ++i) {
    if (test::read_file(proc + "/wchan").find("wait_for_partner") != std::string::npos) break;
    std::error_code ignored;
    bool open = false;
    for (const auto& fd : fs::directory_iterator(proc + "/fd", ignored)) {
      open = open || fs::read_symlink(fd.path(), ignored).string() == fifo;
    }
    if (open) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return pid;
}

// Lets a reader still waiting for a writer see the end of the stream.
int finish_fifo_reader(int pid, const std::string& fifo) {
  const int fd = open(fifo.c_str(), O_WRONLY | O_NONBLOCK);
  if (fd >= 0) close(fd);
  return test::wait_child(pid);
}

TEST(LiveRealArecord, FifoWithAReaderThatKeepsUpGetsTheSameBytes) {
  RealDevice device(64000, true);
  const std::string fifo = device.tmp.path("mic.pcm");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const int reader = spawn_fifo_reader(fifo, device.tmp.path("received"), device.tmp.path("cat.err"));
  const test::RunResult r = test::run(device.args("2", fifo), device.env());
  EXPECT_EQ(finish_fifo_reader(reader, fifo), 0);
  expect_finite_clean_end(r, device.status());
  EXPECT_EQ(count(r.out, "warning: live PCM output"), 0) << r.out;
  const int chunks = chunks_in(device.status());
  EXPECT_TRUE(test::read_file(device.tmp.path("received")) == test::library_beam_bytes(device.frames, 1024, chunks));
}

// Waits until `path` holds `text` at least `times` times (10 s at most).
bool wait_for_lines(const std::string& path, const std::string& text, int times) {
  for (int i = 0; i < 1000; ++i) {
    if (count(test::read_file(path), text) >= times) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}

TEST(LiveRealArecord, ReaderAttachesLeavesAndReturns) {
  RealDevice device(128000, true);
  const std::string fifo = device.tmp.path("mic.pcm");
  const std::string log_path = device.tmp.path("live.log");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const int tool = test::spawn(device.args("5", fifo), device.env(), device.tmp.path("out"), device.tmp.path("err"));
  // Each phase waits for the tool to report the one before.
  EXPECT_TRUE(wait_for_lines(log_path, "warning: live PCM output has no reader", 1));
  const int first = spawn_fifo_reader(fifo, device.tmp.path("part1"), device.tmp.path("cat1.err"));
  EXPECT_TRUE(wait_for_lines(log_path, "live PCM output connected", 1));
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  kill(first, SIGTERM);
  test::wait_child(first);
  EXPECT_TRUE(wait_for_lines(log_path, "reader disconnected", 1));
  const int second = spawn_fifo_reader(fifo, device.tmp.path("part2"), device.tmp.path("cat2.err"));
  EXPECT_TRUE(wait_for_lines(log_path, "live PCM output connected", 2));
  EXPECT_EQ(test::wait_child(tool), 0);
  EXPECT_EQ(finish_fifo_reader(second, fifo), 0);

  const std::string log = test::read_file(device.tmp.path("out"));
  const std::string no_reader =
      "warning: live PCM output has no reader or cannot be opened nonblocking; direction status will continue "
      "without virtual mic PCM writes\n";
  EXPECT_EQ(count(log, no_reader), 1) << log;
  EXPECT_EQ(count(log, "live PCM output connected: " + fifo + "\n"), 2) << log;
  EXPECT_EQ(count(log, "warning: live PCM output reader disconnected; direction status will continue\n"), 1);
  EXPECT_LT(log.find(no_reader), log.find("live PCM output connected"));

  // Each reader got a run of whole chunks of the stream, from a chunk on; the
  // second one read to the end of the stream. (The source repeats every 64
  // chunks, so the first reader's run is found by content, at a chunk.)
  const int chunks = chunks_in(device.status());
  const std::string all = test::library_beam_bytes(device.frames, 1024, static_cast<std::size_t>(chunks));
  const std::string part1 = test::read_file(device.tmp.path("part1"));
  const std::string part2 = test::read_file(device.tmp.path("part2"));
  ASSERT_GE(part1.size(), 2048u);
  ASSERT_GE(part2.size(), 2048u);
  const std::size_t at = all.find(part1.substr(0, 2048));
  ASSERT_NE(at, std::string::npos);
  EXPECT_EQ(at % 2048, 0u);
  EXPECT_TRUE(all.compare(at, part1.size(), part1) == 0);
  ASSERT_LE(part2.size(), all.size());
  EXPECT_EQ((all.size() - part2.size()) % 2048, 0u);
  EXPECT_TRUE(all.compare(all.size() - part2.size(), part2.size(), part2) == 0);
}

TEST(LiveRealArecord, ASlowReaderCostsSamplesNotTime) {
  RealDevice device(3000000, false);
  const std::string fifo = device.tmp.path("mic.pcm");
  const std::string idle_fifo = device.tmp.path("idle.pcm");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  ASSERT_EQ(mkfifo(idle_fifo.c_str(), 0600), 0);
  // A reader that opens the FIFO and never reads: the pipe fills at once.
  const int reader = test::spawn({"python3", "-c",
                                  "import os, sys, time\nfd = os.open(sys.argv[1], os.O_RDONLY | os.O_NONBLOCK)\n"
                                  "time.sleep(120)",
                                  fifo},
                                 {}, device.tmp.path("r.out"), device.tmp.path("r.err"));
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  // Two runs side by side, so that both meet the same load from elsewhere:
  // one writing into the full pipe, one without any reader. Best of three.
  std::vector<std::string> idle_args = device.args("2", idle_fifo);
  idle_args[idle_args.size() - 3] = device.tmp.path("state/idle.json");
  idle_args[idle_args.size() - 1] = device.tmp.path("idle.log");
  double best_ratio = 0.0;
  for (int round = 0; round < 3; ++round) {
    const int slow = test::spawn(device.args("2", fifo), device.env(), device.tmp.path("slow.out"),
                                 device.tmp.path("slow.err"));
    const int idle = test::spawn(idle_args, device.env(), device.tmp.path("idle.out"), device.tmp.path("idle.err"));
    EXPECT_EQ(test::wait_child(slow), 0);
    EXPECT_EQ(test::wait_child(idle), 0);
    const std::string slow_log = test::read_file(device.tmp.path("slow.out"));
    EXPECT_EQ(count(slow_log, "live PCM output connected"), 1) << slow_log;
    EXPECT_EQ(count(slow_log, "reader disconnected"), 0);
    const int chunks_slow = chunks_in(device.status());
    const int chunks_idle = chunks_in(device.tmp.path("state/idle.json"));
    best_ratio = std::max(best_ratio, static_cast<double>(chunks_slow) / chunks_idle);
    RecordProperty("round" + std::to_string(round), std::to_string(chunks_slow) + "/" + std::to_string(chunks_idle));
  }
  kill(reader, SIGTERM);
  test::wait_child(reader);
  // A blocking write would stall at the 33rd chunk (a ratio near 0.02);
  // dropping keeps the pace. The slow run also turns every beam into PCM,
  // which the run without a reader skips, so it is somewhat slower.
  EXPECT_GT(best_ratio, 0.5);
}

// A stand-in arecord for failure injection.
struct StandIn {
  test::TempDir tmp;
  Env env;
  explicit StandIn(Env settings) {
    const std::string bin = tmp.path("bin");
    fs::create_directories(bin);
    fs::copy_file(test::source_path("tests/arecord_stand_in.sh"), bin + "/arecord");
    fs::create_directories(tmp.path("record"));
    fs::create_directories(tmp.path("state"));
    env = std::move(settings);
    env["PATH"] = bin + ":" + std::getenv("PATH");
    env["STAND_IN_DIR"] = tmp.path("record");
    env["STATUS_FILE"] = status();
  }
  std::string status() const { return tmp.path("state/status.json"); }
  test::RunResult run(const std::string& duration) const {
    return test::run({test::tool_path(), "--live", "--live-duration", duration, "--pcm-output", tmp.path("none.pcm"),
                      "--event-output", status(), "--log", tmp.path("live.log")},
                     env);
  }
  std::string record(const std::string& name) const { return test::read_file(tmp.path("record/" + name)); }
  std::string frames_file(std::size_t chunks, std::size_t extra_bytes = 0) {
    std::vector<uint8_t> bytes = array_frames(chunks * 1024, 2);
    bytes.resize(bytes.size() + extra_bytes, 0);
    test::write_bytes(tmp.path("frames.raw"), bytes);
    return tmp.path("frames.raw");
  }
};

const std::string kStderrText = "arecord: main:831: audio open error: \"Device\" busy\nsecond\tline";
const std::string kStderrEscaped = "\"arecord: main:831: audio open error: \\\"Device\\\" busy\\nsecond\\tline\"";

TEST(LiveStandIn, EarlyExitWithStandardErrorInAFiniteRun) {
  StandIn s({{"EXIT_CODE", "1"}, {"STDERR_TEXT", kStderrText}});
  s.env["FRAMES"] = s.frames_file(20, 12);  // 20 chunks and 3 stray samples
  const test::RunResult r = s.run("30");
  EXPECT_EQ(r.exit_code, 0);
  EXPECT_TRUE(r.out.ends_with(
      "warning: arecord stopped during live mode with status 256, exit_code 1\n"
      "arecord_stderr: " + kStderrText + "\n"
      "error: arecord exited with status 256, exit_code 1\n"
      "arecord_stderr: " + kStderrText + "\n"
      "live chunks_processed: 20\nlive low_confidence_chunks: 0\nlive speech_detected: true\n"
      "live clean finite-duration exit\n"))
      << r.out;
  EXPECT_EQ(status_value(s.status(), "status"), "\"stopped\"");
  EXPECT_EQ(status_value(s.status(), "arecord_exit_code"), "1");
  EXPECT_EQ(status_value(s.status(), "arecord_stderr"), kStderrEscaped);
  EXPECT_EQ(status_value(s.status(), "chunks_processed"), "20");
  EXPECT_EQ(s.record("starts"), "1\n");
}

TEST(LiveStandIn, DeathBySignal9) {
  StandIn s(Env{{"KILL_SIGNAL", "9"}});
  s.env["FRAMES"] = s.frames_file(5);
  const test::RunResult r = s.run("30");
  EXPECT_EQ(r.exit_code, 0);
  // The raw status depends on whether the shell exec'd the child; the decoded code does not.
  EXPECT_NE(r.out.find(", exit_code 137\n"), std::string::npos) << r.out;
  EXPECT_EQ(status_value(s.status(), "arecord_exit_code"), "137");
  EXPECT_EQ(status_value(s.status(), "status"), "\"stopped\"");
}

TEST(LiveStandIn, FailureBeforeAnyChunkIsDegraded) {
  StandIn s({{"EXIT_CODE", "1"}, {"STDERR_TEXT", "no device"}});
  const test::RunResult r = s.run("30");
  EXPECT_EQ(r.exit_code, 32);
  EXPECT_TRUE(r.out.ends_with("live chunks_processed: 0\nlive low_confidence_chunks: 0\nlive speech_detected: false\n"
                              "live clean exit\n"))
      << r.out;
  EXPECT_EQ(status_value(s.status(), "status"), "\"degraded\"");
  EXPECT_EQ(status_value(s.status(), "error"), "\"arecord exited with nonzero status\"");
  EXPECT_EQ(status_value(s.status(), "processed_channel_rms"), "[]");
  EXPECT_EQ(status_value(s.status(), "direction_method"), "\"processed multi-pair centered cross-correlation\"");
  EXPECT_EQ(status_value(s.status(), "direction_samples_source"), "\"processed\"");
}

std::vector<double> start_times(const StandIn& s) {
  std::vector<double> times;
  std::istringstream in(s.record("times"));
  for (double t; in >> t;) times.push_back(t);
  return times;
}

void expect_restart_hygiene(const StandIn& s, std::size_t starts) {
  const std::vector<double> times = start_times(s);
  ASSERT_EQ(times.size(), starts);
  for (std::size_t i = 1; i < times.size(); ++i) {
    SCOPED_TRACE(i);
    // The pause is 2 s; the rest is starting a shell and the stand-in,
    // which a machine ten times slower than this one still does in 10 s.
    EXPECT_GT(times[i] - times[i - 1], 1.95);
    EXPECT_LT(times[i] - times[i - 1], 12.0);
  }
  // At every start the tool holds the same descriptors and no zombie child.
  std::istringstream fds(s.record("fds"));
  std::istringstream zombies(s.record("zombies"));
  std::string first_fds;
  std::getline(fds, first_fds);
  for (std::string line; std::getline(fds, line);) EXPECT_EQ(line, first_fds);
  for (std::string line; std::getline(zombies, line);) EXPECT_EQ(line, "0");
}

TEST(LiveStandIn, ContinuousRunThatAlwaysFailsGivesUpDegraded) {
  StandIn s({{"EXIT_CODE", "1"}, {"STDERR_TEXT", kStderrText}});
  const test::RunResult r = s.run("0");
  EXPECT_EQ(r.exit_code, 32);
  for (int attempt = 1; attempt <= 10; ++attempt) {
    EXPECT_EQ(count(r.out, "restarted arecord for live mode attempt " + std::to_string(attempt) + "\n"), 1);
  }
  EXPECT_EQ(count(r.out, "warning: arecord stopped during live mode with status 256, exit_code 1\n"), 11);
  EXPECT_TRUE(r.out.ends_with("error: arecord restart limit reached; live direction status degraded\n"
                              "error: arecord exited with status 256, exit_code 1\n"
                              "arecord_stderr: " + kStderrText + "\n"
                              "live chunks_processed: 0\nlive low_confidence_chunks: 0\nlive speech_detected: false\n"
                              "live clean exit\n"))
      << r.out;
  EXPECT_EQ(status_value(s.status(), "status"), "\"degraded\"");
  EXPECT_EQ(status_value(s.status(), "live_processing"), "false");
  // What a reader saw at each restart: the "restarting" record of the stop before.
  for (int n = 2; n <= 11; ++n) {
    SCOPED_TRACE(n);
    const std::string snapshot = s.tmp.path("record/snapshot." + std::to_string(n));
    EXPECT_EQ(status_value(snapshot, "status"), "\"restarting\"");
    EXPECT_EQ(status_value(snapshot, "live_processing"), "true");
    EXPECT_EQ(status_value(snapshot, "arecord_exit_code"), "1");
    EXPECT_EQ(status_value(snapshot, "arecord_stderr"), kStderrEscaped);
  }
  expect_restart_hygiene(s, 11);
}

TEST(LiveStandIn, HealthyChildThatStopsRestartsAsAttemptZero) {
  StandIn s(Env{{"EXIT_CODE", "1"}});
  s.env["FIRST_FRAMES"] = s.frames_file(11);
  const test::RunResult r = s.run("0");
  EXPECT_EQ(r.exit_code, 32);
  EXPECT_EQ(count(r.out, "restarted arecord for live mode attempt 0\n"), 1) << r.out;
  EXPECT_EQ(count(r.out, "restarted arecord for live mode attempt 10\n"), 1);
  EXPECT_EQ(count(r.out, "restarted arecord for live mode attempt 11\n"), 0);
  EXPECT_EQ(status_value(s.status(), "chunks_processed"), "11");
  EXPECT_EQ(status_value(s.status(), "direction_angle_degrees"), "14.48");  // the last chunk's, kept to the end
  expect_restart_hygiene(s, 12);
}

TEST(LiveStartFailure, NoPipeForTheChildEndsWith30AndNoStatusFile) {
  test::TempDir tmp;
  // With room for standard streams and the log only, popen cannot make its pipe.
  const test::RunResult r = test::run(
      {"sh", "-c", "ulimit -n 4; exec \"$0\" --live --log '' --event-output status.json", test::tool_path()}, {},
      tmp.dir.string());
  EXPECT_EQ(r.exit_code, 30) << r.out << r.err;
  EXPECT_TRUE(r.out.ends_with("error: failed to start arecord for live mode\n")) << r.out;
  EXPECT_FALSE(fs::exists(tmp.path("status.json")));
}

// A child that stays alive and sends nothing cannot hold a finite run: at
// the end it gets a second, then SIGTERM, then a second, then SIGKILL.
TEST(LiveStandIn, StalledChildIsEndedWhenAFiniteRunEnds) {
  struct Case {
    std::string hang;
    std::size_t chunks;
    int exit_code;
    std::string end;  // the final pass's report of the child
    std::string status;
  };
  const Case cases[] = {
      {"yes", 5, 0, "error: arecord exited with status 15, exit_code 143\n", "\"stopped\""},
      {"ignore-term", 5, 0, "error: arecord exited with status 9, exit_code 137\n", "\"stopped\""},
      {"yes", 0, 32, "error: arecord exited with status 15, exit_code 143\n", "\"degraded\""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.hang + " " + std::to_string(c.chunks));
    StandIn s(Env{{"HANG", c.hang}});
    if (c.chunks > 0) s.env["FRAMES"] = s.frames_file(c.chunks);
    const test::RunResult r = s.run("1");
    EXPECT_EQ(r.exit_code, c.exit_code) << r.out;
    EXPECT_NE(r.out.find(c.end), std::string::npos) << r.out;
    EXPECT_EQ(status_value(s.status(), "status"), c.status);
    EXPECT_EQ(status_value(s.status(), "chunks_processed"), std::to_string(c.chunks));
  }
}

// Standard error with escape sequences, control bytes and bytes that are not
// UTF-8 still gives a status file that a strict parser reads.
TEST(LiveStandIn, HostileStandardErrorStaysValidJson) {
  StandIn s({{"EXIT_CODE", "1"}, {"STDERR_TEXT", "\x1b[31mred\x01 \xff\xfe end"}});
  s.env["FRAMES"] = s.frames_file(3);
  const test::RunResult r = s.run("30");
  EXPECT_EQ(r.exit_code, 0);
  EXPECT_EQ(status_value(s.status(), "arecord_stderr"), "\"\\u001b[31mred\\u0001 \\ufffd\\ufffd end\"");
  // The log file is ours alone: the child never holds it.
  EXPECT_NE(s.record("own_fds"), "");
  EXPECT_EQ(s.record("own_fds").find("live.log"), std::string::npos) << s.record("own_fds");
}

// Links and FIFOs planted at the status file's helper paths: the run ends,
// nothing is written through them.
TEST(LiveStandIn, PlantedHelperPathsNeitherHangNorLeak) {
  struct Case {
    std::string plant;  // "fifo" or "link"
    std::string suffix;
    int exit_code;
  };
  const Case cases[] = {
      {"fifo", ".tmp", 0}, {"link", ".tmp", 0}, {"fifo", ".arecord.stderr", 32}, {"link", ".arecord.stderr", 32}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.plant + c.suffix);
    StandIn s(Env{{"STDERR_TEXT", "arecord's complaint"}});
    s.env["FRAMES"] = s.frames_file(3);
    const std::string planted = s.status() + c.suffix;
    test::write_file(s.tmp.path("target"), "not ours to change");
    if (c.plant == "fifo") {
      ASSERT_EQ(mkfifo(planted.c_str(), 0600), 0);
    } else {
      fs::create_symlink(s.tmp.path("target"), planted);
    }
    const test::RunResult r = s.run("30");
    EXPECT_EQ(r.exit_code, c.exit_code) << r.out;
    EXPECT_EQ(test::read_file(s.tmp.path("target")), "not ours to change");
    EXPECT_EQ(fs::symlink_status(planted).type(), c.plant == "fifo" ? fs::file_type::fifo : fs::file_type::symlink);
    if (c.suffix == ".tmp") {
      EXPECT_FALSE(fs::exists(s.status()));  // every record was refused
    } else {
      // No child ran: the start failed as a failed shell redirection does.
      EXPECT_EQ(s.record("starts"), "");
      EXPECT_NE(r.out.find("warning: arecord stopped during live mode with status 512, exit_code 2\n"),
                std::string::npos);
      EXPECT_EQ(status_value(s.status(), "status"), "\"degraded\"");
      EXPECT_EQ(status_value(s.status(), "arecord_stderr"), "\"\"");
    }
  }
}

// Runs `argv` as the user nobody: a second local user, for planting files.
test::RunResult as_nobody(std::vector<std::string> argv) {
  argv.insert(argv.begin(), {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"});
  return test::run(argv);
}

// Another user's FIFO, file or link at the PCM path in a folder like /tmp
// never receives the audio; our own FIFO there does.
TEST(LiveRealArecord, PcmPathPlantedByAnotherUserIsRefused) {
  if (geteuid() != 0 || test::run({"setpriv", "--version"}).exit_code != 0) {
    GTEST_SKIP() << "planting files as another user needs root and setpriv";
  }
  RealDevice device(200000, false);
  fs::permissions(device.tmp.dir, fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                                      fs::perms::others_read | fs::perms::others_exec);
  const std::string shared = device.tmp.path("shared");
  fs::create_directory(shared);
  fs::permissions(shared, fs::perms::all | fs::perms::sticky_bit);
  test::write_file(device.tmp.path("ours"), "our file");
  struct Case {
    std::string name;
    std::vector<std::string> plant;  // run as nobody; empty: we make a FIFO ourselves
    std::string reason;              // "" when the output must connect
  };
  const Case cases[] = {
      {"their_fifo", {"mkfifo", "-m", "666", shared + "/their_fifo"}, ": owned by another user"},
      {"their_file", {"sh", "-c", "umask 0; echo theirs > \"$0\"", shared + "/their_file"}, ": owned by another user"},
      {"their_link", {"ln", "-s", device.tmp.path("ours"), shared + "/their_link"}, ": symbolic link"},
      {"our_fifo", {}, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string path = shared + "/" + c.name;
    if (c.plant.empty()) {
      ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    } else {
      ASSERT_EQ(as_nobody(c.plant).exit_code, 0);
    }
    const bool fifo = fs::symlink_status(path).type() == fs::file_type::fifo;
    const int reader = fifo ? spawn_fifo_reader(path, device.tmp.path(c.name + ".got"), device.tmp.path("r.err")) : -1;
    const test::RunResult r = test::run(device.args("1", path), device.env());
    const int reader_end = fifo ? finish_fifo_reader(reader, path) : 0;
    EXPECT_EQ(reader_end, 0);
    EXPECT_EQ(r.exit_code, 0) << r.out;
    const std::string warning =
        "warning: live PCM output has no reader or cannot be opened nonblocking; direction status will continue "
        "without virtual mic PCM writes" + c.reason + "\n";
    EXPECT_EQ(count(r.out, warning), c.reason.empty() ? 0 : 1) << r.out;
    EXPECT_EQ(count(r.out, "live PCM output connected"), c.reason.empty() ? 1 : 0);
    const std::string got = fifo ? test::read_file(device.tmp.path(c.name + ".got")) : "";
    EXPECT_EQ(got.empty(), !c.reason.empty());
  }
  EXPECT_EQ(test::read_file(device.tmp.path("ours")), "our file");
  EXPECT_EQ(test::read_file(shared + "/their_file"), "theirs\n");
  // Not a FIFO or regular file: a character device.
  const test::RunResult r = test::run(device.args("1", "/dev/null"), device.env());
  EXPECT_EQ(count(r.out, "nonblocking; direction status will continue without virtual mic PCM writes: not a FIFO or "
                         "regular file\n"),
            1)
      << r.out;
}

// A regular-file PCM output that reaches the file-size limit is a lost
// reader, not a killed run.
TEST(LiveRealArecord, PcmFileAtTheFileSizeLimitDisconnects) {
  RealDevice device(400000, false);
  test::write_file(device.tmp.path("out.pcm"), "");
  std::vector<std::string> argv = {"prlimit", "--fsize=1048576"};
  std::vector<std::string> args = device.args("2", device.tmp.path("out.pcm"));
  args.insert(args.end(), {"--live-chunk-frames", "16000"});
  args[args.size() - 3] = "";  // --log ''
  argv.insert(argv.end(), args.begin(), args.end());
  const test::RunResult r = test::run(argv, device.env());
  EXPECT_EQ(r.exit_code, 0) << r.out;
  EXPECT_GE(count(r.out, "warning: live PCM output reader disconnected; direction status will continue\n"), 1) << r.out;
  EXPECT_EQ(status_value(device.status(), "status"), "\"stopped\"");
  EXPECT_LE(fs::file_size(device.tmp.path("out.pcm")), 1u << 20);
}

// Sets or unsets an environment variable for one scope, then restores it.
struct ScopedEnv {
  std::string name;
  std::optional<std::string> saved;
  ScopedEnv(const std::string& key, const char* value) : name(key) {
    if (const char* old = std::getenv(key.c_str())) saved = old;
    if (value != nullptr) {
      setenv(key.c_str(), value, 1);
    } else {
      unsetenv(key.c_str());
    }
  }
  ~ScopedEnv() {
    if (saved) {
      setenv(name.c_str(), saved->c_str(), 1);
    } else {
      unsetenv(name.c_str());
    }
  }
};

TEST(ChooseStatusPath, EventOutputThenXdgStateHomeThenHomeThenBuild) {
  const ScopedEnv keep_state("XDG_STATE_HOME", nullptr);
  const ScopedEnv keep_home("HOME", nullptr);
  Options options;
  setenv("XDG_STATE_HOME", "/xdg", 1);
  setenv("HOME", "/home/u", 1);
  EXPECT_EQ(choose_status_path(options), "/xdg/sonderscope/sonderlark-live-event.json");
  setenv("XDG_STATE_HOME", "", 1);
  EXPECT_EQ(choose_status_path(options), "/home/u/.local/state/sonderscope/sonderlark-live-event.json");
  unsetenv("XDG_STATE_HOME");
  unsetenv("HOME");
  EXPECT_EQ(choose_status_path(options), "build/sonderlark-live-event.json");
  options.event_output_path = "mine.json";
  EXPECT_EQ(choose_status_path(options), "mine.json");
}

}  // namespace
}  // namespace sonderlark

namespace sonderlark {
namespace {

// Starts the poller on `status`; it stops when `stop` appears, or by itself
// after `reads` reads that saw `distinct` different records.
int start_poller(const std::string& status, const std::string& stop, const std::string& out, long reads = 0,
                 long distinct = 0) {
  std::vector<std::string> argv = {"python3", test::source_path("tests/poll_status.py"), status, stop};
  if (reads > 0) argv.insert(argv.end(), {std::to_string(reads), std::to_string(distinct)});
  return test::spawn(argv, {}, out, out + ".err");
}

std::map<std::string, long> poller_counts(int pid, const std::string& stop, const std::string& out) {
  test::write_file(stop, "");
  if (pid > 0) {
    EXPECT_EQ(test::wait_child(pid), 0) << test::read_file(out + ".err");
  }
  std::map<std::string, long> counts;
  const test::RunResult parsed = test::run(
      {"python3", "-c", "import json,sys\nfor k,v in json.load(open(sys.argv[1])).items(): print(k, v)", out});
  std::istringstream in(parsed.out);
  std::string key;
  for (long value; in >> key >> value;) counts[key] = value;
  return counts;
}

// Whether the child has ended, without waiting.
bool ended(int pid) { return waitpid(pid, nullptr, WNOHANG) == pid; }

TEST(LiveStatusFile, AReaderNeverSeesAPartialRecord) {
  RealDevice device(200000, false);
  const std::string stop = device.tmp.path("stop");
  const std::string out = device.tmp.path("poll.json");
  // A continuous unpaced run; the poller starts once the first record is there.
  std::vector<std::string> args = device.args("0", device.tmp.path("no-reader.pcm"));
  args.insert(args.end(), {"--live-chunk-frames", "128"});
  const int tool = test::spawn(args, device.env(), device.tmp.path("tool.out"), device.tmp.path("tool.err"));
  while (!fs::exists(device.status()) && !ended(tool)) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  const long kReads = 20000;
  const long kRecords = 2000;
  const int poller = start_poller(device.status(), stop, out, kReads, kRecords);
  // Counts, not time: the poller ends by itself once it has seen enough.
  bool tool_ended = false;
  while (!ended(poller) && !(tool_ended = ended(tool))) std::this_thread::sleep_for(std::chrono::milliseconds(50));
  ASSERT_FALSE(tool_ended) << test::read_file(device.tmp.path("tool.out"));
  kill(tool, SIGTERM);
  test::wait_child(tool);
  std::map<std::string, long> counts = poller_counts(-1, stop, out);
  EXPECT_GE(counts["reads"], kReads);
  EXPECT_GE(counts["distinct"], kRecords);
  EXPECT_EQ(counts["partial"], 0);
  EXPECT_EQ(counts["missing"], 0);
  std::cout << "atomicity: " << counts["reads"] << " reads of " << counts["distinct"] << " records, "
            << counts["partial"] << " partial, " << counts["missing"] << " missing\n";
}

// Thirty-three hours of unpaced input pass 2^31 chunks.
TEST(LiveStatusFile, ChunkCountBeyond32Bits) {
  test::TempDir tmp;
  write_live_event_json(tmp.path("s.json"), Options{}, DirectionEstimate{}, ChannelDiagnostics{}, false, 3000000000LL,
                        false, true, "running", "", "arecord", -1, "");
  EXPECT_EQ(status_value(tmp.path("s.json"), "chunks_processed"), "3000000000");
}

TEST(LiveStatusFile, ThePollerCatchesAWriterThatWritesInPlace) {
  test::TempDir tmp;
  const std::string status = tmp.path("status.json");
  const std::string stop = tmp.path("stop");
  const std::string out = tmp.path("poll.json");
  // Seed a complete record, then rewrite it in place (truncate and write) for a while.
  write_live_event_json(status, Options{}, DirectionEstimate{}, ChannelDiagnostics{}, false, 0, false, true,
                        "running", "", "arecord", -1, "");
  const std::string record = test::read_file(status);
  const int poller = start_poller(status, stop, out);
  const int writer = test::spawn({"python3", "-c",
                                  "import sys, time\nrecord = open(sys.argv[1]).read()\nend = time.time() + 3\n"
                                  "while time.time() < end:\n"
                                  "    with open(sys.argv[1], 'w') as f:\n"
                                  "        f.write(record[:200]); f.flush(); f.write(record[200:])",
                                  status},
                                 {}, tmp.path("w.out"), tmp.path("w.err"));
  EXPECT_EQ(test::wait_child(writer), 0) << test::read_file(tmp.path("w.err"));
  std::map<std::string, long> counts = poller_counts(poller, stop, out);
  EXPECT_GT(counts["partial"], 0) << "the poller would not notice a torn record";
  EXPECT_FALSE(record.empty());
}

}  // namespace
}  // namespace sonderlark
