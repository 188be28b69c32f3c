// sonderlark-monitor against status files of every kind and a real live run.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>

#include <chrono>
#include <iostream>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <regex>
#include <sstream>
#include <thread>

#include "report/live_status.h"
#include "monitor/frame.h"
#include "support.h"

namespace sonderlark {
namespace {

namespace fs = std::filesystem;

std::string monitor_path() { return test::program_path("sonderlark-monitor"); }

// A record from the tool's own writer, its timestamp then set to `timestamp`
// unless that is empty.
void write_record(const std::string& path, const std::string& status, const std::string& error, int exit_code,
                  const std::string& stderr_text, const std::string& timestamp = "") {
  write_live_status(path, {.live_processing = status == "running",
                           .status = status,
                           .error = error,
                           .device = "hw:1,0",
                           .arecord_command = "arecord -D 'hw:1,0' -f S32_LE -r 16000 -c 4 -t raw",
                           .arecord_exit_code = exit_code,
                           .arecord_stderr = stderr_text,
                           .chunks_processed = 4321,
                           .pcm_output = "/run/user/1000/sonderlark-beamformed-mic.pcm",
                           .pcm_output_connected = status == "running",
                           .direction_angle_degrees = 48.590377890729,
                           .direction_confidence = 0.27,
                           .direction_method = "processed multi-pair centered cross-correlation",
                           .direction_samples_source = "processed-live",
                           .detected_speech = true,
                           .processed_channel_rms = {0.1, 0.0316, 0.001, 0.0}});
  if (timestamp.empty()) return;
  std::string text = test::read_file(path);
  text.replace(text.find("\"timestamp\": \"") + 14, 20, timestamp);
  test::write_file(path, text);
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

// A 40x12 terminal gets the compact layout, with nothing cut that matters.
TEST(MonitorInTmux, CompactLayoutInASmallTerminal) {
  test::TempDir tmp;
  write_record(tmp.path("status.json"), "stopped", "", 0, "");
  Tmux tmux(tmp.path("tmux.sock"));
  ASSERT_EQ(test::run({"tmux", "-S", tmux.socket, "new-session", "-d", "-x", "40", "-y", "12", monitor_path(),
                       tmp.path("status.json")})
                .exit_code,
            0);
  EXPECT_GE(wait_for([&] { return tmux.screen().find("speech yes  PCM not connected") != std::string::npos; }, 20.0),
            0.0)
      << tmux.screen();
  const std::string screen = tmux.screen();
  for (const char* shown : {"stopped  chunks 4321", "direction: 48.59 degrees", "confidence 0.270 (low)", "ch0  -20.0 [",
                            "ch3   -inf ["}) {
    EXPECT_NE(screen.find(shown), std::string::npos) << shown << "\n" << screen;
  }
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

// Text from outside, as it reaches a real terminal: every string member of a
// status record (and its timestamp), and for the doctor a process name from
// /proc, carry a title change (ESC ] 2 ; ... BEL), C1 controls and a
// right-to-left override. The pane's title stays, no escape reaches the
// screen, and each payload shows with '?' in place of what was filtered.
std::string payload(const std::string& field) {
  return "\x1b]2;PWNED-" + field + "\x07\xc2\x9b" "31m\xc2\x9d" "0;PWNED\xe2\x80\xae-end";
}
std::string shown(const std::string& field) { return "?]2;PWNED-" + field + "??31m?0;PWNED?-end"; }

void write_hostile_record(const std::string& path, const std::string& status, const std::string& timestamp = "") {
  write_live_status(path, {.live_processing = true,
                           .status = status.empty() ? payload("status") : status,
                           .error = payload("error"),
                           .device = payload("device"),
                           .arecord_command = payload("command"),
                           .arecord_exit_code = 1,
                           .arecord_stderr = payload("stderr"),
                           .chunks_processed = 7,
                           .pcm_output = payload("pcm"),
                           .direction_method = "processed multi-pair centered cross-correlation",
                           .direction_samples_source = "processed"});
  std::string text = test::read_file(path);
  if (timestamp.empty()) {
    const std::time_t now = std::time(nullptr);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%SZ", std::gmtime(&now));
    text.replace(text.find("\"timestamp\": \"") + 14, 20, stamp);
  } else {
    text.replace(text.find("\"timestamp\": \"") + 14, 20, timestamp);
  }
  test::write_file(path, text);
}

TEST(TerminalText, NoEscapeFromAnyFieldReachesTheTerminal) {
  test::TempDir tmp;
  write_hostile_record(tmp.path("any.json"), "");
  write_hostile_record(tmp.path("degraded.json"), "degraded");
  write_hostile_record(tmp.path("timestamp.json"), "running", "1-1-1T1:1:1\\u001b]2;PWNED\\u0007");
  // A reader of the doctor's FIFO whose process name is a title change.
  ASSERT_EQ(mkfifo(tmp.path("mic.pcm").c_str(), 0600), 0);
  const std::string hostile_name = tmp.path("\x1b]2;PWNED-comm\x07");
  fs::copy_file("/bin/sleep", hostile_name);
  fs::permissions(hostile_name, fs::perms::owner_all);
  const int holder = test::spawn({"sh", "-c", "exec 3<>\"$0\"; exec \"$1\" 600", tmp.path("mic.pcm"), hostile_name},
                                 {}, tmp.path("holder.out"), tmp.path("holder.err"));
  ASSERT_GE(wait_for([&] { return test::read_file("/proc/" + std::to_string(holder) + "/comm").starts_with("\x1b"); },
                     20.0),
            0.0);

  const std::string doctor = test::program_path("sonderlark-doctor");
  const std::string each = "for f in any degraded timestamp; do echo \"== $f\"; \"$0\" --once $f.json; "
                           "\"$1\" --device no_such_device --seconds 1 --pcm-output \"$2\" --event-output $f.json; "
                           "done; echo END-OF-OUTPUT; exec sleep 600";
  Tmux tmux(tmp.path("tmux.sock"));
  ASSERT_EQ(test::run({"tmux", "-S", tmux.socket, "new-session", "-d", "-x", "250", "-y", "200", "-c",
                       tmp.dir.string(), "sh", "-c", each, monitor_path(), doctor, tmp.path("mic.pcm")},
                      {{"XDG_RUNTIME_DIR", tmp.path("")}, {"PULSE_SERVER", tmp.path("no-server")}})
                .exit_code,
            0);
  const auto history = [&] {
    return test::run({"tmux", "-S", tmux.socket, "capture-pane", "-p", "-e", "-S", "-", "-t", "0"}).out;
  };
  EXPECT_GE(wait_for([&] { return history().find("END-OF-OUTPUT") != std::string::npos; }, 120.0), 0.0) << history();
  const std::string screen = history();
  const std::string title =
      test::run({"tmux", "-S", tmux.socket, "display-message", "-p", "-t", "0", "#{pane_title}"}).out;
  kill(holder, SIGTERM);
  test::wait_child(holder);

  EXPECT_EQ(title.find("PWNED"), std::string::npos) << title;
  EXPECT_EQ(screen.find('\x1b'), std::string::npos) << screen;
  for (const char* bad : {"\xc2\x9b", "\xc2\x9d", "\xe2\x80\xae", "\x07"}) EXPECT_EQ(screen.find(bad), std::string::npos);
  // What each program shows of each member.
  for (const std::string field : {"status", "pcm", "command", "stderr", "error"}) {
    EXPECT_NE(screen.find(shown(field)), std::string::npos) << field << "\n" << screen;
  }
  EXPECT_NE(screen.find("status: " + shown("status")), std::string::npos) << screen;
  EXPECT_NE(screen.find("device " + shown("device")), std::string::npos) << screen;
  EXPECT_NE(screen.find("arecord said: " + shown("stderr")), std::string::npos) << screen;
  EXPECT_NE(screen.find("(?]2;PWNED-comm?)"), std::string::npos) << screen;
  EXPECT_NE(screen.find("!! not a complete JSON status record"), std::string::npos) << screen;
}

}  // namespace
}  // namespace sonderlark
