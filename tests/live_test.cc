// Live mode: the real arecord on a file-backed ALSA device (paced where the
// bytes are compared), real FIFOs and readers, and a stand-in arecord for
// the failures a real device will not produce on demand.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <nlohmann/json.hpp>
#include <regex>
#include <sstream>
#include <thread>

#include "support.h"

namespace sonderlark {
namespace {

namespace fs = std::filesystem;
using Env = std::map<std::string, std::optional<std::string>>;
using nlohmann::json;

constexpr std::size_t kPeriod = 65536;  // the simulated source repeats with this period

// Interleaved S32_LE frames of noise from the source at asin(lag / 8),
// repeating every kPeriod frames.
std::string array_frames(std::size_t frames, int lag) {
  std::vector<std::vector<double>> period = test::array_noise(lag, kPeriod + 16, 0.3, 3);
  for (auto& channel : period) channel.erase(channel.begin(), channel.begin() + 16);
  const std::string one = test::s32_frames(period);
  std::string bytes;
  while (bytes.size() < frames * 16) bytes += one;
  bytes.resize(frames * 16);
  return bytes;
}

// The status record: it must parse (no NaN, no Infinity) and have its 20 members.
json status_of(const std::string& path) {
  const json j = json::parse(test::read_file(path));
  EXPECT_EQ(j.size(), 20u) << path;
  return j;
}

int count(const std::string& text, const std::string& what) {
  int n = 0;
  for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

const std::string kNoReader =
    "warning: live PCM output has no reader or cannot be opened nonblocking; direction status will continue without "
    "virtual mic PCM writes";

// A live run on the real arecord reading a file-backed ALSA device: paced
// at real time (the same frames at any build's speed, silence after their
// end), or unpaced (as fast as the tool reads; what follows the file's end
// is not defined).
struct RealDevice {
  test::TempDir tmp;
  std::string frames;
  std::optional<test::PacedDevice> paced;
  RealDevice(std::size_t frame_count, bool pace) : frames(array_frames(frame_count, 4)) {
    fs::create_directories(tmp.path("state"));
    test::write_file(tmp.path("frames.raw"), frames);
    if (pace) {
      paced.emplace(tmp);
    } else {
      test::write_alsa_file_device(tmp.path("config"), "sonderlark_array", tmp.path("frames.raw"));
    }
  }
  std::vector<std::string> args(const std::string& duration, const std::string& pcm,
                                const std::string& name = "status") const {
    return {test::tool_path(), "--live", "--device", "sonderlark_array", "--live-duration", duration, "--pcm-output", pcm,
            "--event-output", tmp.path("state/" + name + ".json"), "--log", tmp.path(name + ".log")};
  }
  Env env() const { return test::alsa_env(tmp.path("config")); }
  std::string status() const { return tmp.path("state/status.json"); }
};

// Spawns a reader that copies FIFO to OUT and waits until it is blocked
// opening the FIFO. It widens the pipe to 1 MiB, so that a moment off the
// CPU on a busy machine does not make the writer drop samples.
int spawn_fifo_reader(const std::string& fifo, const std::string& out) {
  const int pid = test::spawn({"python3", "-c",
                               "import fcntl, os, sys\n"
                               "fd = os.open(sys.argv[1], os.O_RDONLY)\n"
                               "fcntl.fcntl(fd, 1031, 1 << 20)  # F_SETPIPE_SZ\n"
                               "with open(sys.argv[2], 'wb') as out:\n"
                               "    while data := os.read(fd, 65536):\n"
                               "        out.write(data); out.flush()",
                               fifo, out},
                              {}, out + ".stdout", out + ".stderr");
  const std::string proc = "/proc/" + std::to_string(pid);
  for (int i = 0; i < 6000; ++i) {  // a minute at most
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

// A finite paced run into a regular file and into a FIFO whose reader keeps
// up: exactly the beams the library computes, chunk for chunk, and a clean end.
TEST(LiveRealArecord, FiniteRunWritesExactlyTheBeamsToAFileAndAFifo) {
  for (const bool fifo : {false, true}) {
    SCOPED_TRACE(fifo ? "fifo" : "file");
    RealDevice device(64000, true);
    const std::string pcm = device.tmp.path("out.pcm");
    int reader = -1;
    if (fifo) {
      ASSERT_EQ(mkfifo(pcm.c_str(), 0600), 0);
      reader = spawn_fifo_reader(pcm, device.tmp.path("received"));
    } else {
      test::write_file(pcm, "");
    }
    const test::RunResult r = test::run(device.args("2", pcm), device.env());
    if (fifo) {
      EXPECT_EQ(finish_fifo_reader(reader, pcm), 0);
    }
    EXPECT_EQ(r.exit_code, 0) << r.out;
    EXPECT_TRUE(r.out.ends_with("live clean finite-duration exit\n")) << r.out;
    EXPECT_EQ(r.out, test::read_file(device.tmp.path("status.log")));
    const json status = status_of(device.status());
    EXPECT_EQ(status["status"], "stopped");
    EXPECT_EQ(status["live_processing"], false);
    EXPECT_EQ(status["pcm_output_connected"], false);
    EXPECT_EQ(status["arecord_exit_code"], 1);  // the real arecord, its pipe closed: "Broken pipe"
    EXPECT_EQ(status["direction_samples_source"], "processed-live");
    EXPECT_NE(test::read_file(device.status()).find("\"direction_angle_degrees\": 30.00,"), std::string::npos);
    const int chunks = status["chunks_processed"];
    ASSERT_GT(chunks, 0);
    const std::string got = test::read_file(fifo ? device.tmp.path("received") : pcm);
    EXPECT_TRUE(got == test::library_beam_bytes(device.frames, 1024, chunks));
    EXPECT_EQ(count(r.out, "warning: live PCM output"), 0) << r.out;

    const std::string start =
        "device: sonderlark_array\n"
        "Sonderlark live mode: raw Kinect mic array -> input gain -> beamforming -> mono s16le PCM\n"
        "live_pcm_output: " + pcm + "\nlive_duration_seconds: 2\nlive_chunk_frames: 1024\n"
        "live_event_json: " + device.status() + "\n"
        "live capture command: arecord -D 'sonderlark_array' -f S32_LE -r 16000 -c 4 -t raw\n"
        "live arecord stderr: " + device.status() + ".arecord.stderr\n"
        "live PCM output connected: " + pcm + "\nlive chunk=1 processed_rms_ch0=";
    EXPECT_NE(r.out.find(start), std::string::npos) << r.out;
    // Chunk lines only for chunk 1 and every 50th.
    EXPECT_EQ(count(r.out, "live chunk="), 1 + chunks / 50);
    EXPECT_EQ(count(r.out, "live chunk=50 "), chunks >= 50 ? 1 : 0);
    EXPECT_NE(r.out.find("\nlive chunks_processed: " + std::to_string(chunks) + "\n"), std::string::npos);
  }
}

// Waits until `path` holds `text` at least `times` times (a minute at most:
// the limit only ends a hung run).
bool wait_for_lines(const std::string& path, const std::string& text, int times) {
  for (int i = 0; i < 6000; ++i) {
    if (count(test::read_file(path), text) >= times) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}

// Waits until the file at `path` holds at least `bytes` (a minute at most).
bool wait_for_bytes(const std::string& path, std::size_t bytes) {
  for (int i = 0; i < 6000; ++i) {
    std::error_code ignored;
    if (fs::file_size(path, ignored) >= bytes && !ignored) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}

TEST(LiveRealArecord, ReaderAttachesLeavesAndReturns) {
  RealDevice device(128000, true);
  const std::string fifo = device.tmp.path("mic.pcm");
  const std::string log_path = device.tmp.path("status.log");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  // A continuous run, stopped by SIGTERM: each phase waits for the tool to
  // report the one before, at whatever speed the machine has.
  const int tool = test::spawn(device.args("0", fifo), device.env(), device.tmp.path("out"), device.tmp.path("err"));
  EXPECT_TRUE(wait_for_lines(log_path, kNoReader, 1));
  const int first = spawn_fifo_reader(fifo, device.tmp.path("part1"));
  EXPECT_TRUE(wait_for_lines(log_path, "live PCM output connected", 1));
  EXPECT_TRUE(wait_for_bytes(device.tmp.path("part1"), 2 * 2048));
  kill(first, SIGTERM);
  test::wait_child(first);
  EXPECT_TRUE(wait_for_lines(log_path, "reader disconnected", 1));
  const int second = spawn_fifo_reader(fifo, device.tmp.path("part2"));
  EXPECT_TRUE(wait_for_lines(log_path, "live PCM output connected", 2));
  EXPECT_TRUE(wait_for_bytes(device.tmp.path("part2"), 2 * 2048));
  kill(tool, SIGTERM);
  EXPECT_EQ(test::wait_child(tool), 0);
  EXPECT_EQ(finish_fifo_reader(second, fifo), 0);

  const std::string log = test::read_file(device.tmp.path("out"));
  EXPECT_EQ(count(log, kNoReader + "\n"), 1) << log;
  EXPECT_EQ(count(log, "live PCM output connected: " + fifo + "\n"), 2) << log;
  EXPECT_EQ(count(log, "warning: live PCM output reader disconnected; direction status will continue\n"), 1);
  EXPECT_LT(log.find(kNoReader), log.find("live PCM output connected"));

  // Each reader got a run of whole chunks of the stream, from a chunk on; the
  // second one read to the end of the stream. (The source repeats every 64
  // chunks, so the first reader's run is found by content, at a chunk.)
  const int chunks = status_of(device.status())["chunks_processed"];
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

// A reader that never reads: the pipe fills after 32 chunks, and a writer
// that waited for it would stall there for good. The run goes on past 100
// chunks with the reader still connected (its samples are dropped) and
// stops cleanly.
TEST(LiveRealArecord, ASlowReaderCostsSamplesNotTime) {
  RealDevice device(3000000, false);
  const std::string fifo = device.tmp.path("mic.pcm");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const int reader = test::spawn({"python3", "-c",
                                  "import os, sys, time\nfd = os.open(sys.argv[1], os.O_RDONLY | os.O_NONBLOCK)\n"
                                  "open(sys.argv[1] + '.open', 'w').close()\ntime.sleep(600)",
                                  fifo},
                                 {}, device.tmp.path("r.out"), device.tmp.path("r.err"));
  ASSERT_TRUE(wait_for_bytes(fifo + ".open", 0));
  const int tool = test::spawn(device.args("0", fifo), device.env(), device.tmp.path("out"), device.tmp.path("err"));
  bool past = false;
  for (int i = 0; i < 6000 && !past; ++i) {
    const std::string text = test::read_file(device.status());
    const std::size_t at = text.find("\"chunks_processed\": ");
    past = at != std::string::npos && std::stoi(text.substr(at + 20)) > 100;
    if (!past) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_TRUE(past) << test::read_file(device.status());
  kill(tool, SIGTERM);
  EXPECT_EQ(test::wait_child(tool), 0);
  kill(reader, SIGTERM);
  test::wait_child(reader);
  const std::string log = test::read_file(device.tmp.path("out"));
  EXPECT_EQ(count(log, "live PCM output connected"), 1) << log;
  EXPECT_EQ(count(log, "reader disconnected"), 0) << log;
}

// Runs `argv` as the user nobody: a second local user, for planting files.
test::RunResult as_nobody(std::vector<std::string> argv) {
  argv.insert(argv.begin(), {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"});
  return test::run(argv);
}

// Another user's FIFO, file or link at the PCM path in a folder like /tmp
// never receives the audio; our own FIFO there does; a device is refused.
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
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{"mkfifo", "-m", "666", shared + "/their_fifo"}, ": owned by another user"},
      {{"sh", "-c", "umask 0; echo theirs > \"$0\"", shared + "/their_file"}, ": owned by another user"},
      {{"ln", "-s", device.tmp.path("ours"), shared + "/their_link"}, ": symbolic link"},
      {{"mkfifo", shared + "/our_fifo"}, ""},  // made by us, not by nobody
      {{"true", "/dev/null"}, ": not a FIFO or regular file"},
  };
  for (const auto& [plant, reason] : cases) {
    const std::string path = plant.back();
    SCOPED_TRACE(path);
    ASSERT_EQ((reason.empty() || path == "/dev/null" ? test::run(plant) : as_nobody(plant)).exit_code, 0);
    const bool fifo = fs::symlink_status(path).type() == fs::file_type::fifo;
    const int reader = fifo ? spawn_fifo_reader(path, path + ".got") : -1;
    const test::RunResult r = test::run(device.args("1", path), device.env());
    EXPECT_EQ(fifo ? finish_fifo_reader(reader, path) : 0, 0);
    EXPECT_EQ(r.exit_code, 0) << r.out;
    EXPECT_EQ(count(r.out, kNoReader + reason + "\n"), reason.empty() ? 0 : 1) << r.out;
    EXPECT_EQ(count(r.out, "live PCM output connected"), reason.empty() ? 1 : 0);
    EXPECT_EQ(fifo && !test::read_file(path + ".got").empty(), reason.empty());
  }
  EXPECT_EQ(test::read_file(device.tmp.path("ours")), "our file");
  EXPECT_EQ(test::read_file(shared + "/their_file"), "theirs\n");
}

// A regular-file PCM output that reaches the file-size limit is a lost
// reader, not a killed run.
TEST(LiveRealArecord, PcmFileAtTheFileSizeLimitDisconnects) {
  RealDevice device(400000, false);
  test::write_file(device.tmp.path("out.pcm"), "");
  // Two chunks of beam (32000 bytes each) fit under the limit: the third
  // meets it however slowly the run goes.
  std::vector<std::string> argv = {"prlimit", "--fsize=65536"};
  std::vector<std::string> args = device.args("2", device.tmp.path("out.pcm"));
  args.back() = "";  // --log '': the log would meet the limit too
  argv.insert(argv.end(), args.begin(), args.end());
  argv.insert(argv.end(), {"--live-chunk-frames", "16000"});
  const test::RunResult r = test::run(argv, device.env());
  EXPECT_EQ(r.exit_code, 0) << r.out;
  EXPECT_GE(count(r.out, "warning: live PCM output reader disconnected; direction status will continue\n"), 1) << r.out;
  EXPECT_EQ(status_of(device.status())["status"], "stopped");
  EXPECT_LE(fs::file_size(device.tmp.path("out.pcm")), 65536u);
}

// Starts the poller on `status`; it stops when `stop` appears, or by itself
// after `reads` reads that saw `distinct` different records.
int start_poller(const std::string& status, const std::string& stop, const std::string& out, long reads = 0,
                 long distinct = 0) {
  std::vector<std::string> argv = {"python3", test::source_path("tests/poll_status.py"), status, stop};
  if (reads > 0) argv.insert(argv.end(), {std::to_string(reads), std::to_string(distinct)});
  return test::spawn(argv, {}, out, out + ".err");
}

json poller_counts(int pid, const std::string& stop, const std::string& out) {
  test::write_file(stop, "");
  if (pid > 0) {
    EXPECT_EQ(test::wait_child(pid), 0) << test::read_file(out + ".err");
  }
  return json::parse(test::read_file(out));
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
  // Counts, not time: the poller ends by itself once it has seen enough. The
  // two minutes are only a backstop for a tool that stops writing records.
  bool tool_ended = false, poller_ended = false;
  for (int i = 0; i < 2400 && !(poller_ended = ended(poller)) && !(tool_ended = ended(tool)); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  kill(tool, SIGTERM);
  test::wait_child(tool);
  const json counts = poller_counts(poller_ended ? -1 : poller, stop, out);
  ASSERT_TRUE(poller_ended) << "the run ended or stalled first: " << counts << test::read_file(device.tmp.path("tool.out"));
  EXPECT_GE(counts["reads"], kReads);
  EXPECT_GE(counts["distinct"], kRecords);
  EXPECT_EQ(counts["partial"], 0);
  EXPECT_EQ(counts["missing"], 0);
  std::cout << "atomicity: " << counts << "\n";
}

// The poller above must be able to fail: a writer that truncates and writes
// in place is caught.
TEST(LiveStatusFile, ThePollerCatchesAWriterThatWritesInPlace) {
  test::TempDir tmp;
  const std::string status = tmp.path("status.json");
  const std::string record = test::read_file(test::source_path("tests/golden/live_status.json"));
  test::write_file(status, record);
  const int poller = start_poller(status, tmp.path("stop"), tmp.path("poll.json"));
  const int writer = test::spawn({"python3", "-c",
                                  "import sys, time\nrecord = open(sys.argv[1]).read()\nend = time.time() + 3\n"
                                  "while time.time() < end:\n"
                                  "    with open(sys.argv[1], 'w') as f:\n"
                                  "        f.write(record[:200]); f.flush(); f.write(record[200:])",
                                  status},
                                 {}, tmp.path("w.out"), tmp.path("w.err"));
  EXPECT_EQ(test::wait_child(writer), 0) << test::read_file(tmp.path("w.err"));
  EXPECT_GT(poller_counts(poller, tmp.path("stop"), tmp.path("poll.json"))["partial"], 0);
}

// SIGINT, SIGTERM and SIGHUP (what a terminal, systemctl stop and a closed
// session send) end a continuous or a finite run cleanly once it has
// processed a chunk: the stop logged, the summary, a "stopped" record and
// status 0, and the monitor then shows a stopped run, not a stale one.
struct StopCase {
  int signal_number;
  bool finite;
};

void PrintTo(const StopCase& c, std::ostream* os) {
  *os << strsignal(c.signal_number) << (c.finite ? " finite" : " continuous");
}

class LiveStop : public testing::TestWithParam<StopCase> {};

TEST_P(LiveStop, ASignalEndsTheRunAsItsTimeWouldEnd) {
  const StopCase& c = GetParam();
  RealDevice device(64000, true);
  const std::string log_path = device.tmp.path("status.log");
  const int tool = test::spawn(device.args(c.finite ? "600" : "0", device.tmp.path("out.pcm")), device.env(),
                               device.tmp.path("out"), device.tmp.path("err"));
  // The deadline only fails a run that never gets going.
  ASSERT_TRUE(wait_for_lines(log_path, "live chunk=1 ", 1)) << test::read_file(log_path);
  kill(tool, c.signal_number);
  EXPECT_EQ(test::wait_child(tool), 0);
  const std::string log = test::read_file(log_path);
  const std::size_t stop = log.find("\nlive stop requested by signal " + std::to_string(c.signal_number) + "\n");
  ASSERT_NE(stop, std::string::npos) << log;
  const json status = status_of(device.status());
  const std::string chunks = std::to_string(static_cast<int>(status["chunks_processed"]));
  EXPECT_NE(log.find("\nlive chunks_processed: " + chunks + "\nlive low_confidence_chunks: ", stop), std::string::npos)
      << log;
  EXPECT_TRUE(log.ends_with(c.finite ? "\nlive clean finite-duration exit\n" : "\nlive clean exit\n")) << log;
  EXPECT_EQ(status["status"], "stopped");
  EXPECT_EQ(status["error"], "");
  EXPECT_EQ(status["live_processing"], false);
  const test::RunResult monitor = test::run({test::program_path("sonderlark-monitor"), "--once", device.status()});
  EXPECT_EQ(monitor.exit_code, 0);
  EXPECT_NE(monitor.out.find("\nstatus: stopped   chunks: " + chunks + " "), std::string::npos) << monitor.out;
  EXPECT_EQ(monitor.out.find("STALE"), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(Signals, LiveStop,
                         testing::Values(StopCase{SIGTERM, false}, StopCase{SIGINT, false}, StopCase{SIGHUP, false},
                                         StopCase{SIGTERM, true}, StopCase{SIGINT, true}, StopCase{SIGHUP, true}),
                         [](const auto& info) {
                           return std::string(sigabbrev_np(info.param.signal_number)) +
                                  (info.param.finite ? "_finite" : "_continuous");
                         });

}  // namespace
}  // namespace sonderlark
