// sonderlark-doctor's checks in-process, and a busy device (the runs on
// file-backed devices are tests/scenarios/doctor.toml).
#include <gtest/gtest.h>

#include <signal.h>
#include <unistd.h>

#include "doctor/doctor.h"
#include "doctor/probes.h"
#include "support.h"
#include "util/process.h"
#include "util/text.h"

namespace sonderlark {
namespace {

// A busy device names the processes that hold the card (the message without
// them: tests/scenarios/doctor.toml). This machine has no sound card to
// hold, so the search is shown on a file held open by a child.
TEST(DoctorDevice, BusyDeviceNamesItsHolders) {
  test::TempDir tmp;
  test::write_file(tmp.path("pcmC7D0c"), "");
  const pid_t holder = spawn_shell("exec sleep 30 < " + shell_quote(tmp.path("pcmC7D0c")));
  // The shell opens the file before it becomes sleep: wait for the name too.
  const std::vector<std::string> expected{std::to_string(holder) + " (sleep)"};
  std::vector<std::string> holders;
  for (int i = 0; i < 6000 && (holders = processes_holding(tmp.path("pcmC7D"))) != expected; ++i) usleep(10000);
  EXPECT_EQ(holders, expected);  // within a minute
  kill(holder, SIGTERM);
  wait_child(holder);
  EXPECT_NE(device_check("hw:7,0", 1, "Device or resource busy", holders).details[0].find("held by "),
            std::string::npos);
}

// Where the doctor looks for the virtual microphone, and what it says of it,
// from what `pactl list modules short` prints.
TEST(DoctorSetUp, FindsTheVirtualMicrophoneTheUserSetUp) {
  const std::string runtime = "/run/user/1000/sonderlark-beamformed-mic.pcm";
  const std::string on_runtime = "7\tmodule-pipe-source\tsource_name=sonderlark_mic file=" + runtime +
                                 " format=s16le rate=16000 channels=1\t\n";
  const std::string elsewhere = "3\tmodule-null-sink\tsink_name=x\t\n8\tmodule-pipe-source\tfile=/srv/mic.pcm "
                                "format=s16le rate=16000 channels=1\t\n";
  DoctorOptions asked;
  asked.pcm_path = "/home/u/mic.pcm";
  DoctorOptions wanted;
  wanted.virtual_mic = true;
  struct Row {
    std::string name;
    DoctorOptions options;
    std::string status_pcm;
    bool server;
    std::string modules;
    std::string path;   // found
    std::string state;  // of the check
    std::string text;   // in its message or advice
    std::vector<std::string> readers = {};
  };
  const Row rows[] = {
      {"source on the runtime path", {}, "", true, elsewhere + on_runtime, runtime, "problem",
       "of the loaded pipe source"},
      {"another source only", {}, "", true, elsewhere, "/srv/mic.pcm", "problem", "/srv/mic.pcm"},
      {"the live run's path first", {}, "/srv/live.pcm", true, on_runtime, "/srv/live.pcm", "problem",
       "no module-pipe-source is loaded for /srv/live.pcm"},
      {"--pcm-output first", asked, "/srv/live.pcm", true, on_runtime, "/home/u/mic.pcm", "problem",
       "load one in your private runtime folder"},
      {"none set up", {}, "", true, "", "", "skipped", "one-shot use needs none"},
      {"no server, none set up", {}, "", false, "", "", "skipped", "no sound server answers pactl: one-shot"},
      {"no server, one asked for", wanted, "", false, "", runtime, "problem", "start a sound server"},
      {"no server, the live run's path", {}, "/srv/live.pcm", false, "", "/srv/live.pcm", "problem",
       "no sound server answers pactl, so nothing reads /srv/live.pcm"},
      {"read by sonderlark-mic", {}, "/srv/live.pcm", true, "", "/srv/live.pcm", "ok",
       "/srv/live.pcm feeds sonderlark-mic (process 4242), the low-latency PipeWire source", {"4242 (sonderlark-mic)"}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const MicSetup setup = find_mic_setup(row.options, row.status_pcm, row.modules, runtime, path_facts(runtime).fifo);
    EXPECT_EQ(setup.pcm_path, row.path);
    const Check c = virtual_mic_check(setup, row.server, row.modules, row.readers, runtime, path_facts(setup.pcm_path));
    EXPECT_EQ(c.state, row.state);
    std::string all = c.message + "\n" + c.advice;
    for (const std::string& d : c.details) all += "\n" + d;
    EXPECT_NE(all.find(row.text), std::string::npos) << all;
  }
}

}  // namespace
}  // namespace sonderlark
