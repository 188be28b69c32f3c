// sonderlark-monitor against status files of every kind and a real live run.
#include <gtest/gtest.h>

#include <signal.h>

#include <chrono>
#include <iostream>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <regex>
#include <sstream>
#include <thread>

#include "cli/options.h"
#include "report/live_status.h"
#include "report/status_view.h"
#include "support.h"

namespace sonderlark {
namespace {

namespace fs = std::filesystem;

std::string monitor_path() { return test::program_path("sonderlark-monitor"); }

// A record from the tool's own writer, its timestamp then set to `timestamp`
// unless that is empty.
void write_record(const std::string& path, const std::string& status, const std::string& error, int exit_code,
                  const std::string& stderr_text, const std::string& timestamp = "") {
  DirectionEstimate direction;
  direction.angle_degrees = 48.590377890729;
  direction.confidence = 0.27;
  direction.low_confidence = true;
  direction.samples_source = "processed-live";
  ChannelDiagnostics levels;
  levels.rms = {0.1, 0.0316, 0.001, 0.0};
  Options options;
  options.pcm_output_path = "/run/user/1000/sonderlark-beamformed-mic.pcm";
  write_live_event_json(path, options, direction, levels, true, 4321, status == "running", status == "running", status,
                        error, "arecord -D 'hw:1,0' -f S32_LE -r 16000 -c 4 -t raw", exit_code, stderr_text);
  if (timestamp.empty()) return;
  std::string text = test::read_file(path);
  text.replace(text.find("\"timestamp\": \"") + 14, 20, timestamp);
  test::write_file(path, text);
}

struct OnceCase {
  std::string name;
  int exit_code;
};

void PrintTo(const OnceCase& c, std::ostream* os) { *os << c.name; }

class MonitorOnce : public testing::TestWithParam<OnceCase> {};

// --once prints one plain frame; the golden files hold it with the path and
// a current timestamp masked.
TEST_P(MonitorOnce, FrameMatchesGolden) {
  const OnceCase& c = GetParam();
  test::TempDir tmp;
  const std::string path = tmp.path("status.json");
  const std::string quoted_stderr = "arecord: main:831: audio open error: \"Device\" busy\nsecond line";
  if (c.name == "running") write_record(path, "running", "", -1, "");
  if (c.name == "restarting") write_record(path, "restarting", "arecord exited with nonzero status", 1, quoted_stderr);
  if (c.name == "degraded") write_record(path, "degraded", "arecord exited with nonzero status", 1, "no device");
  if (c.name == "stale") write_record(path, "running", "", -1, "", "2001-02-03T04:05:06Z");
  if (c.name == "torn") {
    write_record(path, "running", "", -1, "");
    test::write_file(path, test::read_file(path).substr(0, 300));
  }
  const test::RunResult r = test::run({monitor_path(), "--once", path});
  EXPECT_EQ(r.exit_code, c.exit_code);
  std::string out = std::regex_replace(r.out, std::regex(path), "STATUS");
  out = std::regex_replace(out, std::regex("at 20[0-9-]{8}T[0-9:]{8}Z"), "at TIMESTAMP");
  const std::string golden = test::source_path("tests/golden/monitor_" + c.name + ".txt");
  if (std::getenv("SONDERLARK_UPDATE_GOLDEN") != nullptr) test::write_file(golden, out);  // then read them over
  EXPECT_EQ(out, test::read_file(golden)) << out;
}

INSTANTIATE_TEST_SUITE_P(Records, MonitorOnce,
                         testing::Values(OnceCase{"running", 0}, OnceCase{"restarting", 0}, OnceCase{"degraded", 0},
                                         OnceCase{"stale", 1}, OnceCase{"torn", 1}, OnceCase{"missing", 1}),
                         [](const auto& info) { return info.param.name; });

TEST(MonitorCommandLine, RefusedWithStatus2) {
  for (const std::vector<std::string>& args : {std::vector<std::string>{"--interval", "5"}, {"--bogus"}, {"a", "b"}}) {
    std::vector<std::string> argv = {monitor_path()};
    argv.insert(argv.end(), args.begin(), args.end());
    EXPECT_EQ(test::run(argv).exit_code, 2);
  }
  EXPECT_EQ(test::run({monitor_path(), "--help"}).exit_code, 0);
}

// The monitor inside tmux, watching a real live run whose source moves from
// -30 to +48.59 degrees halfway.
struct Tmux {
  std::string socket;
  explicit Tmux(const std::string& path) : socket(path) {}
  ~Tmux() { test::run({"tmux", "-S", socket, "kill-server"}); }
  std::string screen() const { return test::run({"tmux", "-S", socket, "capture-pane", "-p", "-t", "0"}).out; }
};

// Column of the needle's tip on the screen, or -1.
int needle_column(const std::string& screen) {
  std::istringstream lines(screen);
  for (std::string line; std::getline(lines, line);) {
    const std::size_t at = line.find('@');
    if (at != std::string::npos) return static_cast<int>(at);
  }
  return -1;
}

double seconds_now() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// Polls `ready` every 20 ms for up to `limit` seconds; the time it took, or -1.
template <typename Ready>
double wait_for(Ready ready, double limit) {
  const double start = seconds_now();
  while (seconds_now() - start < limit) {
    if (ready()) return seconds_now() - start;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return -1.0;
}

// Raw frames of `seconds` of noise from `angle` degrees, appended to `out`.
void append_source(const test::TempDir& tmp, double angle, const std::string& out) {
  ASSERT_EQ(test::run({"sox", "-n", "-r", "16000", "-b", "16", "-c", "1", tmp.path("noise.wav"), "synth", "4",
                       "whitenoise", "vol", "0.3"})
                .exit_code,
            0);
  ASSERT_EQ(test::run({test::sim_path(), "--input", tmp.path("noise.wav"), "--output", tmp.path("part.raw"), "--raw",
                       "--angle", std::to_string(angle)})
                .exit_code,
            0);
  test::write_file(out, test::read_file(out) + test::read_file(tmp.path("part.raw")));
}

TEST(MonitorInTmux, FollowsALiveRunAndFlagsItsDeath) {
  test::TempDir tmp;
  const std::string status = tmp.path("state/status.json");
  fs::create_directories(tmp.path("state"));
  auto live = [&](const test::TempDir& device_dir) {
    return test::spawn({test::tool_path(), "--live", "--device", "sonderlark_array", "--pcm-output", tmp.path("none"),
                        "--event-output", status, "--log", ""},
                       test::alsa_env(device_dir.path("config")), device_dir.path("out"), device_dir.path("err"));
  };
  test::TempDir first_dir;
  append_source(first_dir, -30.0, first_dir.path("frames.raw"));
  append_source(first_dir, 48.59, first_dir.path("frames.raw"));
  auto first_device = std::make_unique<test::PacedDevice>(first_dir);
  int tool = live(first_dir);

  Tmux tmux(tmp.path("tmux.sock"));
  ASSERT_EQ(test::run({"tmux", "-S", tmux.socket, "new-session", "-d", "-x", "90", "-y", "40", monitor_path(),
                       "--interval", "100", status})
                .exit_code,
            0);
  auto shows = [&](const std::string& text) { return [&, text] { return tmux.screen().find(text) != std::string::npos; }; };
  ASSERT_GE(wait_for(shows("direction: -30.00 degrees"), 20.0), 0.0) << tmux.screen();
  const std::string before = tmux.screen();
  for (int c = 0; c < 4; ++c) EXPECT_NE(before.find("ch" + std::to_string(c) + " "), std::string::npos) << before;
  EXPECT_EQ(before.find("ch4 "), std::string::npos);

  // The record turns to 48.59 degrees; the view follows.
  StatusRecord record;
  auto record_says = [&] {
    return read_status_record(status, wall_clock_seconds(), record) == RecordState::kFresh &&
           std::abs(record.direction_angle_degrees - 48.59) < 0.005;
  };
  ASSERT_GE(wait_for(record_says, 20.0), 0.0);
  // How soon is reported, not asserted: the suite must hold at any speed.
  const double followed = wait_for(shows("direction: 48.59 degrees"), 20.0);
  EXPECT_GE(followed, 0.0) << tmux.screen();
  std::cout << "view followed the record in " << followed << " s\n";
  const std::string after = tmux.screen();
  EXPECT_LT(needle_column(before), needle_column(after)) << before << after;

  // Killed: the last record says "running" and ages; the banner comes.
  kill(tool, SIGKILL);
  test::wait_child(tool);
  first_device.reset();
  const double stale = wait_for(shows("STALE"), 30.0);
  EXPECT_GE(stale, 0.0) << tmux.screen();
  std::cout << "stale banner " << stale << " s after the kill\n";

  // A new run: the banner goes.
  test::TempDir second_dir;
  append_source(second_dir, 0.0, second_dir.path("frames.raw"));
  test::PacedDevice second_device(second_dir);
  tool = live(second_dir);
  EXPECT_GE(wait_for([&] { return tmux.screen().find("STALE") == std::string::npos; }, 10.0), 0.0) << tmux.screen();
  EXPECT_NE(tmux.screen().find("status: running"), std::string::npos);
  kill(tool, SIGTERM);
  test::wait_child(tool);
}

// q and Ctrl-C both end the view and leave the terminal's modes as they were.
TEST(MonitorInTmux, EveryWayOutRestoresTheTerminal) {
  test::TempDir tmp;
  for (const std::string key : {"q", "C-c"}) {
    SCOPED_TRACE(key);
    Tmux tmux(tmp.path("tmux-" + key + ".sock"));
    const std::string script = "trap '' INT; stty -g > before; \"$0\" --interval 50 missing.json; echo $? > rc; "
                               "stty -g > after; sleep 60";
    ASSERT_EQ(test::run({"tmux", "-S", tmux.socket, "new-session", "-d", "-x", "80", "-y", "30", "-c", tmp.dir.string(),
                         "sh", "-c", script, monitor_path()})
                  .exit_code,
              0);
    ASSERT_GE(wait_for([&] { return tmux.screen().find("no status file here") != std::string::npos; }, 10.0), 0.0)
        << tmux.screen();
    test::run({"tmux", "-S", tmux.socket, "send-keys", "-t", "0", key});
    ASSERT_GE(wait_for([&] { return fs::exists(tmp.path("after")) && fs::file_size(tmp.path("after")) > 0; }, 10.0),
              0.0);
    EXPECT_EQ(test::read_file(tmp.path("rc")), "0\n");
    EXPECT_EQ(test::read_file(tmp.path("after")), test::read_file(tmp.path("before")));
    EXPECT_NE(test::read_file(tmp.path("before")), "");
    fs::remove(tmp.path("after"));
  }
}

}  // namespace
}  // namespace sonderlark
