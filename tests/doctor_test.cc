// sonderlark-doctor against the real arecord on file-backed ALSA devices
// fed by sonderlark-sim recordings made for each case.
#include <gtest/gtest.h>

#include <signal.h>

#include <filesystem>
#include <functional>
#include <regex>
#include <set>
#include <nlohmann/json.hpp>
#include <tuple>

#include "doctor/doctor.h"
#include "doctor/probes.h"
#include "report/live_status.h"
#include "support.h"

namespace sonderlark {
namespace {

namespace fs = std::filesystem;
using Env = std::map<std::string, std::optional<std::string>>;

std::string doctor_path() { return test::program_path("sonderlark-doctor"); }

// Noise bursts with pauses (the noise floor lies in the pauses), and a click
// at 0.5 s of a 3-s window, as mono 16-kHz sources.
std::string source(const test::TempDir& tmp, const std::string& kind) {
  const std::string path = tmp.path(kind + ".wav");
  const std::vector<std::string> synth =
      kind == "click" ? std::vector<std::string>{"synth", "0.004", "sine", "2000", "vol", "0.8", "pad", "0.5", "2.496"}
                      : std::vector<std::string>{"synth", "1", "whitenoise", "vol", "0.3", "pad", "0", "1"};
  std::vector<std::string> argv = {"sox", "-R", "-n", "-r", "16000", "-b", "16", "-c", "1", path};
  argv.insert(argv.end(), synth.begin(), synth.end());
  EXPECT_EQ(test::run(argv).exit_code, 0);
  return path;
}

// Raw frames of the array as `sonderlark-sim` makes them from `input`.
std::string simulate(const test::TempDir& tmp, const std::string& input, std::vector<std::string> options) {
  std::vector<std::string> argv = {test::sim_path(), "--input", input, "--output", tmp.path("part.raw"), "--raw"};
  argv.insert(argv.end(), options.begin(), options.end());
  const test::RunResult r = test::run(argv);
  EXPECT_EQ(r.exit_code, 0) << r.err;
  return test::read_file(tmp.path("part.raw"));
}

// Runs the doctor against the ALSA configuration under `tmp`, with `input`
// on standard input; the status path defaults to a file in `tmp`, and no
// virtual microphone is set up unless `args` name one.
test::RunResult doctor(const test::TempDir& tmp, std::vector<std::string> args, const std::string& input = "",
                       Env env = {}) {
  std::vector<std::string> argv = {"sh", "-c", "printf '%s' \"$0\" | \"$@\"", input, doctor_path(), "--seconds", "2",
                                   "--event-output", tmp.path("status.json")};
  argv.insert(argv.end(), args.begin(), args.end());
  env.merge(test::alsa_env(tmp.path("config")));
  return test::run(argv, env);
}

struct DoctorCase {
  std::string name;
  std::vector<std::string> sim;  // sonderlark-sim options; empty: the case sets the device up itself
  std::string states;            // of device, channels, gain, channel order
  std::string detail;            // a line of the answer
  std::string advice = "";       // what the answer advises for this fault
};

void PrintTo(const DoctorCase& c, std::ostream* os) { *os << c.name; }

class Doctor : public testing::TestWithParam<DoctorCase> {};

TEST_P(Doctor, FindsWhatIsWrongWithTheArray) {
  const DoctorCase& c = GetParam();
  test::TempDir tmp;
  std::string device = "sonderlark_array";
  std::vector<std::string> args;
  std::string input;
  if (c.name == "swapped_channels") {
    // The device plays one tap per microphone in turn; the user presses Enter.
    std::string taps;
    for (int mic = 0; mic < 4; ++mic) {
      taps += simulate(tmp, source(tmp, "click"),
                       {"--tap", std::to_string(mic), "--noise-rms", "0.0005", "--swap", "1:2", "--seed", std::to_string(mic)});
    }
    test::write_file(tmp.path("frames.raw"), taps);
    args = {"--tap"};
    input = "\n";
  } else if (!c.sim.empty()) {
    std::vector<std::string> sim = {"--lag", "2", "--noise-rms", "0.001"};
    sim.insert(sim.end(), c.sim.begin(), c.sim.end());
    test::write_file(tmp.path("frames.raw"), simulate(tmp, source(tmp, "bursts"), sim));
  }
  if (!fs::exists(tmp.path("frames.raw"))) test::write_file(tmp.path("frames.raw"), std::string(64000, '\0'));
  test::write_alsa_file_device(tmp.path("config"), "sonderlark_array", tmp.path("frames.raw"));
  if (c.name == "two_channel_device") {
    // A device that offers two channels only: two file devices side by side.
    const std::string first = test::read_file(tmp.path("config/alsa/asoundrc"));
    std::string second = first;
    second.replace(second.find("sonderlark_array"), 16, "second_array");
    test::write_file(tmp.path("config/alsa/asoundrc"),
                     first + second +
                         "pcm.stereo { type multi slaves.a.pcm \"sonderlark_array\" slaves.a.channels 1 "
                         "slaves.b.pcm \"second_array\" slaves.b.channels 1 bindings.0.slave a "
                         "bindings.0.channel 0 bindings.1.slave b bindings.1.channel 0 }\n");
    device = "stereo";
  }
  if (c.name == "missing_device") device = "no_such_device";
  args.insert(args.end(), {"--device", device});

  args.push_back("--json");
  const test::RunResult r = doctor(tmp, args, input);
  // No sound server and no live run here: no virtual microphone is set up,
  // and an array without faults passes, as for one-shot use.
  EXPECT_EQ(r.exit_code, c.states.find("problem") == std::string::npos ? 0 : 1) << r.out << r.err;
  EXPECT_EQ(test::doctor_states(r.out), c.states + " virtual_microphone=skipped live_status=skipped") << r.out;
  EXPECT_NE(r.out.find(c.detail), std::string::npos) << r.out;
  EXPECT_NE(r.out.find(c.advice), std::string::npos) << r.out;
  const nlohmann::json answer = nlohmann::json::parse(r.out);
  if (c.states.starts_with("device=ok channels=")) {
    // The figures as numbers: one record per channel.
    const nlohmann::json& channels = answer["checks"][1]["channels"];
    ASSERT_EQ(channels.size(), 4u) << r.out;
    for (const auto& channel : channels) {
      for (const char* key : {"level_dbfs", "peak_dbfs", "noise_floor_dbfs", "dc_offset"}) {
        EXPECT_TRUE(channel[key].is_number_float()) << key;
      }
      EXPECT_TRUE(channel["clipped_samples"].is_number_integer());
    }
  }
  if (c.name == "swapped_channels") {
    // The route device the answer gives puts every frame back in order,
    // recorded through the real arecord: each frame of the recording is a
    // frame of the device with channels 1 and 2 exchanged. (Through a route
    // over a file device, blocks of frames may come in another order.)
    std::string definition;
    for (const auto& detail : answer["checks"][3]["details"]) {
      const std::string text = detail;
      if (text.find("pcm.sonderlark_ordered") != std::string::npos) definition = text.substr(text.find("pcm."));
    }
    ASSERT_EQ(definition, "pcm.sonderlark_ordered { type route slave.pcm \"sonderlark_array\" slave.channels 4 "
                          "ttable.0.0 1 ttable.1.2 1 ttable.2.1 1 ttable.3.3 1 }");
    test::write_file(tmp.path("config/alsa/asoundrc"), test::read_file(tmp.path("config/alsa/asoundrc")) + definition + "\n");
    const std::string frames = test::read_file(tmp.path("frames.raw"));
    const std::size_t count = frames.size() / 16;
    const test::RunResult rec = test::run({"arecord", "-q", "-D", "sonderlark_ordered", "-f", "S32_LE", "-r", "16000",
                                           "-c", "4", "-t", "raw", "-s", std::to_string(count), tmp.path("fixed.raw")},
                                          test::alsa_env(tmp.path("config")));
    ASSERT_EQ(rec.exit_code, 0) << rec.err;
    std::set<std::string> restored;
    std::size_t distinct_pairs = 0;  // frames whose channels 1 and 2 differ: the ones a swap changes
    for (std::size_t f = 0; f < count; ++f) {
      std::string frame = frames.substr(f * 16, 16);
      distinct_pairs += frame.compare(4, 4, frame, 8, 4) != 0;
      std::swap_ranges(frame.begin() + 4, frame.begin() + 8, frame.begin() + 8);
      restored.insert(frame);
    }
    ASSERT_GT(distinct_pairs, count / 4);
    const std::string got = test::read_file(tmp.path("fixed.raw"));
    ASSERT_EQ(got.size(), count * 16);
    std::size_t unrestored = 0;
    for (std::size_t f = 0; f < count; ++f) unrestored += restored.count(got.substr(f * 16, 16)) == 0;
    EXPECT_EQ(unrestored, 0u);
  }
  if (c.name == "dead_channel") {
    // The text answer, whole.
    args.pop_back();
    std::string text = std::regex_replace(doctor(tmp, args).out, std::regex(tmp.dir.string()), "TMP");
    const std::string golden = test::source_path("tests/golden/doctor_dead_channel.txt");
    if (std::getenv("SONDERLARK_UPDATE_GOLDEN") != nullptr) test::write_file(golden, text);
    EXPECT_EQ(text, test::read_file(golden));
  }
}

INSTANTIATE_TEST_SUITE_P(
    Arrays, Doctor,
    testing::Values(
        DoctorCase{"all_fine", {"--seed", "3"}, "device=ok channels=ok gain=ok channel_order=skipped",
                   "use --input-gain-db 3: the loudest peak, -9.6 dBFS"},
        DoctorCase{"dead_channel", {"--dead-channel", "2"}, "device=ok channels=problem gain=ok channel_order=skipped",
                   "channel 2 is dead (level -120.0 dBFS)",
                   "Dead channel 2: reseat the array's USB plug and any cable inside it to microphone 2"},
        DoctorCase{"clipping_channel", {"--channel-gain-db", "1:30"},
                   "device=ok channels=problem gain=problem channel_order=skipped", "channel 1 is clipping (",
                   "the array clips at the converter (loudest peak 0.0 dBFS): no --input-gain-db undoes that"},
        DoctorCase{"noisy_channel", {"--channel-noise-rms", "3:0.01"},
                   "device=ok channels=problem gain=ok channel_order=skipped",
                   "channel 3 is much noisier than the others (noise floor 19.",
                   "Noisy: move the array away from power supplies"},
        DoctorCase{"quiet_channel", {"--channel-gain-db", "0:-15"},
                   "device=ok channels=problem gain=ok channel_order=skipped",
                   "channel 0 is far quieter than the others (15.0 dB below them",
                   "Quiet: uncover the microphone's opening"},
        DoctorCase{"swapped_channels", {}, "device=ok channels=ok gain=ok channel_order=problem",
                   "channels 1 and 2 look swapped", "record through that device: --device sonderlark_ordered"},
        DoctorCase{"missing_device", {}, "device=problem channels=skipped gain=skipped channel_order=skipped",
                   "no capture device no_such_device"},
        DoctorCase{"two_channel_device", {}, "device=problem channels=skipped gain=skipped channel_order=skipped",
                   "channel counts offered: 2"}),
    [](const auto& info) { return info.param.name; });

// A busy device names the processes that hold the card. This machine has no
// sound card to hold, so arecord's answer comes from a stand-in, and the
// search for holders is shown on a file held open by a child.
TEST(DoctorDevice, BusyDeviceNamesItsHolders) {
  test::TempDir tmp;
  fs::create_directories(tmp.path("bin"));
  test::write_file(tmp.path("bin/arecord"),
                   "#!/bin/sh\necho 'arecord: main:831: audio open error: Device or resource busy' >&2\nexit 1\n");
  fs::permissions(tmp.path("bin/arecord"), fs::perms::owner_all);
  const test::RunResult r =
      doctor(tmp, {"--device", "hw:7,0"}, "", {{"PATH", tmp.path("bin") + ":" + std::getenv("PATH")}});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.out.find("[problem] device: hw:7,0 is busy: another program has it open\n"), std::string::npos) << r.out;

  test::write_file(tmp.path("pcmC7D0c"), "");
  const int holder = test::spawn({"sh", "-c", "exec sleep 30 < \"$0\"", tmp.path("pcmC7D0c")}, {}, tmp.path("h.out"),
                                 tmp.path("h.err"));
  // The shell opens the file before it becomes sleep: wait for the name too.
  const std::vector<std::string> expected{std::to_string(holder) + " (sleep)"};
  std::vector<std::string> holders;
  for (int i = 0; i < 6000 && holders != expected; ++i) {  // a minute at most
    holders = processes_holding(tmp.path("pcmC7D"));
    if (holders != expected) usleep(10000);
  }
  EXPECT_EQ(holders, expected);
  kill(holder, SIGTERM);
  test::wait_child(holder);
  EXPECT_NE(device_check("hw:7,0", 1, "Device or resource busy", holders).details[0].find("held by "),
            std::string::npos);
}

TEST(DoctorStatus, FreshStaleTornAndMissing) {
  test::TempDir tmp;
  auto write = [&](const std::string& status, int seconds_ago) {
    write_live_status(tmp.path("status.json"),
                      {.live_processing = true,
                       .status = status,
                       .error = status == "degraded" ? "arecord exited with nonzero status" : "",
                       .device = "hw:1,0",
                       .arecord_command = "arecord",
                       .arecord_exit_code = 1,
                       .chunks_processed = 42,
                       .pcm_output = "/tmp/sonderlark-beamformed-mic.pcm",
                       .direction_method = "processed multi-pair centered cross-correlation",
                       .direction_samples_source = "processed"});
    std::string text = test::read_file(tmp.path("status.json"));
    const std::time_t then = std::time(nullptr) - seconds_ago;
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%SZ", std::gmtime(&then));
    text.replace(text.find("\"timestamp\": \"") + 14, 20, stamp);
    test::write_file(tmp.path("status.json"), text);
  };
  const std::vector<std::tuple<std::function<void()>, std::string, std::string>> cases = {
      {[&] { write("running", 0); }, "ok", "\"status running, "},
      {[&] { write("running", 60); }, "problem", "\"the last record says running but is 6"},
      {[&] { write("degraded", 0); }, "problem",
       "\"the live run gave up: arecord exited with nonzero status (arecord exit code 1)\""},
      {[&] { test::write_file(tmp.path("status.json"), "{\"timestamp\": \"20"); }, "problem",
       "\"" + tmp.path("status.json") + " is not a complete status record\""},
      {[&] { fs::remove(tmp.path("status.json")); }, "skipped", "\"no status file at "},
  };
  for (const auto& [setup, state, message] : cases) {
    SCOPED_TRACE(message);
    setup();
    const test::RunResult r = doctor(tmp, {"--device", "no_such_device", "--json"});
    EXPECT_EQ(r.exit_code, 1);  // the device, at least
    EXPECT_TRUE(test::doctor_states(r.out).ends_with(" live_status=" + state)) << r.out;
    EXPECT_NE(r.out.find(message), std::string::npos) << r.out;
  }
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
