// End to end: live mode feeding a real PulseAudio or PipeWire virtual microphone.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <thread>

#include "audio/wav.h"
#include "dsp/beam.h"
#include "dsp/direction.h"
#include "dsp/gain.h"
#include "support.h"

namespace sonderlark {
namespace {

namespace fs = std::filesystem;
using Env = std::map<std::string, std::optional<std::string>>;

// The sound servers a virtual microphone is made with: PulseAudio with
// module-pipe-source; PipeWire (graph at 16 kHz) with the same module loaded
// through pipewire-pulse; PipeWire with its own pipe-tunnel module from the
// drop-in the package ships; PipeWire with sonderlark-mic as the source.
enum class Server { kPulseAudio, kPipeWirePactl, kPipeWireDropIn, kPipeWireMic };

std::string server_name(Server server) {
  switch (server) {
    case Server::kPulseAudio: return "PulseAudio";
    case Server::kPipeWirePactl: return "PipeWirePactl";
    case Server::kPipeWireDropIn: return "PipeWireDropIn";
    case Server::kPipeWireMic: return "PipeWireMic";
  }
  return "";
}

// A private server of the given kind with a pipe source on `fifo`.
struct SoundServer {
  Server kind;
  const test::TempDir& tmp;
  std::string fifo;
  std::string source_settings;
  Env env;
  int pid = -1;          // PulseAudio
  bool running = false;  // PipeWire, through scripts/pipewire-stack
  int mic = -1;          // sonderlark-mic

  // `source` the pipe source's settings; empty: no pipe source at all.
  SoundServer(Server server, const test::TempDir& dir, const std::string& fifo_path,
              const std::string& source = "format=s16le rate=16000 channels=1")
      : kind(server), tmp(dir), fifo(fifo_path), source_settings(source) {
    if (kind != Server::kPulseAudio) return;
    fs::create_directories(tmp.path("run"));
    fs::permissions(tmp.path("run"), fs::perms::owner_all);
    env = {{"XDG_RUNTIME_DIR", tmp.path("run")}, {"HOME", tmp.dir.string()}, {"PULSE_SERVER", std::nullopt}};
    test::write_file(tmp.path("pa.pa"),
                     "load-module module-native-protocol-unix\n"
                     "load-module module-null-sink sink_name=nullsink\n" +
                         (source.empty() ? "" : "load-module module-pipe-source source_name=sonderlark_mic file=" +
                                                    fifo + " " + source + "\n"));
  }
  ~SoundServer() { stop(); }

  void start(const std::string& log_name) {
    if (kind == Server::kPulseAudio) {
      start_pulseaudio(log_name);
    } else {
      start_pipewire();
    }
  }

  void start_pulseaudio(const std::string& log_name) {
    pid = test::spawn({"pulseaudio", "-n", "-F", tmp.path("pa.pa"), "--exit-idle-time=-1", "--daemonize=no"}, env,
                      tmp.path(log_name + ".out"), tmp.path(log_name + ".err"));
    // Ready when the source is listed and its FIFO exists.
    for (int i = 0; i < 600; ++i) {  // a minute at most: only a hung start fails
      const test::RunResult r = test::run({"pactl", "list", "short", "sources"}, env);
      if (r.exit_code == 0 && (source_settings.empty() || (r.out.find("sonderlark_mic") != std::string::npos &&
                                                          fs::exists(fifo)))) {
        return;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    FAIL() << "pulseaudio did not come up: " << test::read_file(tmp.path(log_name + ".err"));
  }

  void start_pipewire() {
    std::vector<std::string> command = {test::source_path("scripts/pipewire-stack"), "start", tmp.path("pipewire")};
    if (kind == Server::kPipeWireDropIn) command.insert(command.end(), {"--pipe-tunnel", fifo});
    const test::RunResult up = test::run(command);
    ASSERT_EQ(up.exit_code, 0) << up.err;
    running = true;
    env = {{"PULSE_SERVER", std::nullopt}, {"PIPEWIRE_REMOTE", std::nullopt}};
    std::istringstream words(up.out);  // NAME=VALUE ...
    for (std::string word; words >> word;) env[word.substr(0, word.find('='))] = word.substr(word.find('=') + 1);
    if (kind == Server::kPipeWirePactl) {
      const test::RunResult load = test::run({"pactl", "load-module", "module-pipe-source",
                                              "source_name=sonderlark_mic", "file=" + fifo, "format=s16le",
                                              "rate=16000", "channels=1"},
                                             env);
      ASSERT_EQ(load.exit_code, 0) << load.err;
    }
    if (kind == Server::kPipeWireMic) {
      // Once: after a server restart the running one publishes its node again.
      if (mic < 0) {
        mic = test::spawn({test::program_path("sonderlark-mic"), "--fifo", fifo}, env, tmp.path("mic.out"),
                          tmp.path("mic.err"));
      }
      // Ready when the Pulse layer lists the source (60 s at most: only a hung start fails).
      for (int i = 0; i < 600; ++i) {
        if (test::run({"pactl", "list", "short", "sources"}, env).out.find("sonderlark_mic") != std::string::npos) {
          return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
      }
      FAIL() << "sonderlark-mic did not come up: " << test::read_file(tmp.path("mic.err"));
    }
  }

  void stop() {
    if (mic >= 0) {
      kill(mic, SIGTERM);
      test::wait_child(mic);
      mic = -1;
    }
    if (pid >= 0) {
      kill(pid, SIGTERM);
      test::wait_child(pid);
      pid = -1;
    }
    if (running) {
      test::run({test::source_path("scripts/pipewire-stack"), "stop", tmp.path("pipewire")});
      running = false;
    }
  }

  // A recorder of the source at 16 kHz into `wav`, started in the background
  // and returned once the server lists its stream (a minute at most: only a
  // hung start fails). Both recorders stop on SIGINT with everything they
  // received written.
  int start_recorder(const std::string& wav) const {
    const std::vector<std::string> argv =
        kind == Server::kPulseAudio
            ? std::vector<std::string>{"parecord", "-d", "sonderlark_mic", "--rate=16000", "--channels=1",
                                       "--format=s16le", "--latency-msec=20", "--file-format=wav", wav}
            : std::vector<std::string>{"pw-record", "--target", "sonderlark_mic", "--rate", "16000", "--channels",
                                       "1", "--format", "s16", "--latency", "16ms", wav};
    // The Pulse layer may list the source before the session manager can
    // link to it: pw-record then ends at once ("no node available"), and is
    // started again.
    for (int attempt = 0; attempt < 20; ++attempt) {
      const int pid = test::spawn(argv, env, wav + ".out", wav + ".err");
      const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
      while (std::chrono::steady_clock::now() < limit) {
        if (waitpid(pid, nullptr, WNOHANG) == pid) break;  // ended: try again
        if (!test::run({"pactl", "list", "short", "source-outputs"}, env).out.empty()) return pid;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
      }
    }
    ADD_FAILURE() << "the recorder never connected: " << test::read_file(wav + ".err");
    return -1;
  }
};

// Simulated speech from 30 degrees (end-to-end lag 4), as raw S32_LE frames.
std::string speech_frames(const test::TempDir& tmp) {
  EXPECT_EQ(test::run({"espeak-ng", "-w", tmp.path("say.wav"),
                       "Testing the virtual microphone. One, two, three, four, five, six, seven."})
                .exit_code,
            0);
  EXPECT_EQ(test::run({"sox", tmp.path("say.wav"), "-r", "16000", "-b", "16", "-c", "1", tmp.path("speech.wav"),
                       "gain", "-6"})
                .exit_code,
            0);
  EXPECT_EQ(test::run({test::sim_path(), "--input", tmp.path("speech.wav"), "--output", tmp.path("frames.raw"),
                       "--raw", "--lag", "4", "--noise-rms", "0.001", "--repeat", "3"})
                .exit_code,
            0);
  return test::read_file(tmp.path("frames.raw"));
}

// How much of `want` arrives in `got`, bit for bit and in order. Between
// its samples `got` may hold silence of the source's own: before the first
// beam arrives, after the last, and wherever the FIFO ran dry. When the
// server falls behind (a loaded machine) the tool drops the rest of a chunk
// and goes on with the next ones: the stream may then go on at a later
// chunk's first sample, counted in `drops`. Anything else is a fault.
std::size_t received_in_order(const std::vector<double>& got, const std::vector<double>& want, std::size_t chunk,
                              int& drops, std::string& fault) {
  std::size_t j = 0;
  for (std::size_t i = 0; i < got.size(); ++i) {
    if (j < want.size() && got[i] == want[j]) {
      ++j;
      continue;
    }
    if (got[i] == 0.0) continue;
    std::size_t next = (j / chunk + 1) * chunk;
    const auto starts_here = [&](std::size_t k) {  // two samples, so that a chance equal value is not taken
      return want[k] == got[i] && (i + 1 == got.size() || k + 1 == want.size() || want[k + 1] == got[i + 1]);
    };
    while (next < want.size() && !starts_here(next)) next += chunk;
    if (j > 0 && next < want.size()) {
      j = next + 1;
      ++drops;
      continue;
    }
    fault = "recorded sample " + std::to_string(i) + " is " + std::to_string(got[i] * 32768) + ", beam sample " +
            std::to_string(j) + " is " + (j < want.size() ? std::to_string(want[j] * 32768) : "past the end");
    return j;
  }
  return j;
}

// Polls `ready` every 20 ms; false only when `seconds` pass first (a hung
// run: the limit never decides a healthy one, however busy the machine).
template <typename Ready>
bool wait_until(Ready ready, double seconds = 60.0) {
  const auto limit = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (!ready()) {
    if (std::chrono::steady_clock::now() > limit) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

std::size_t occurrences(const std::string& text, const std::string& what) {
  std::size_t n = 0;
  for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

// A paced live run into the server's virtual microphone: a recorder gets
// every beam sample bit for bit.
void beam_arrives_bit_for_bit(Server kind) {
  test::TempDir tmp;
  const std::string frames = speech_frames(tmp);
  const std::string fifo = tmp.path("mic.pcm");
  SoundServer server(kind, tmp, fifo);
  server.start("server");
  const int recorder = server.start_recorder(tmp.path("rec.wav"));
  test::PacedDevice device(tmp);
  Env env = server.env;
  env["XDG_CONFIG_HOME"] = tmp.path("config");
  const test::RunResult run = test::run({test::tool_path(), "--live", "--device", "sonderlark_array",
                                         "--live-duration", "4", "--pcm-output", fifo, "--event-output",
                                         tmp.path("status.json"), "--log", tmp.path("live.log")},
                                        env);
  ASSERT_EQ(run.exit_code, 0) << run.out;
  EXPECT_NE(run.out.find("live PCM output connected: " + fifo), std::string::npos) << run.out;
  const int chunks = std::stoi(run.out.substr(run.out.find("live chunks_processed: ") + 23));
  ASSERT_GT(chunks, 0);
  const std::string beam = test::library_beam_bytes(frames, 1024, static_cast<std::size_t>(chunks));
  // The recorder is stopped once the last chunk's samples are in its file.
  const std::string last_chunk = beam.substr(beam.size() - 2048);
  EXPECT_TRUE(wait_until([&] { return test::read_file(tmp.path("rec.wav")).find(last_chunk) != std::string::npos; }));
  kill(recorder, SIGINT);
  test::wait_child(recorder);
  std::vector<double> want(beam.size() / 2);
  for (std::size_t i = 0; i < want.size(); ++i) {
    int16_t v;
    std::memcpy(&v, beam.data() + 2 * i, 2);
    want[i] = v / 32768.0;
  }
  const WavData rec = read_wav(tmp.path("rec.wav"));
  ASSERT_EQ(rec.channels, 1);
  ASSERT_EQ(rec.sample_rate, 16000);
  std::string fault;
  int drops = 0;
  const std::size_t received = received_in_order(rec.samples[0], want, 1024, drops, fault);
  EXPECT_EQ(fault, "");
  EXPECT_EQ(received, want.size()) << test::read_file(tmp.path("rec.wav.err"));
  std::cout << server_name(kind) << ": " << received << " of " << want.size() << " beam samples bit for bit in "
            << rec.samples[0].size() << " recorded, " << drops << " drops\n";
}

class VirtualMicrophone : public ::testing::TestWithParam<Server> {};

TEST_P(VirtualMicrophone, ARecorderGetsTheBeamBitForBit) { beam_arrives_bit_for_bit(GetParam()); }

TEST_P(VirtualMicrophone, ServerRestartDisconnectsAndReconnects) {
  test::TempDir tmp;
  speech_frames(tmp);
  const std::string fifo = tmp.path("mic.pcm");
  SoundServer pulse(GetParam(), tmp, fifo);
  pulse.start("server1");
  test::PacedDevice device(tmp);
  Env env = pulse.env;
  env["XDG_CONFIG_HOME"] = tmp.path("config");
  // A continuous run, ended by SIGTERM once every phase was seen.
  const int tool = test::spawn({test::tool_path(), "--live", "--device", "sonderlark_array", "--live-duration", "0",
                                "--pcm-output", fifo, "--event-output", tmp.path("status.json"), "--log",
                                tmp.path("live.log")},
                               env, tmp.path("tool.out"), tmp.path("tool.err"));
  auto chunks_now = [&] {
    const std::string s = test::read_file(tmp.path("status.json"));
    const std::size_t at = s.find("\"chunks_processed\": ");
    return at == std::string::npos ? 0 : std::stoi(s.substr(at + 20));
  };
  auto log = [&] { return test::read_file(tmp.path("live.log")); };
  const std::string connected = "live PCM output connected: ";
  const std::string disconnected = "warning: live PCM output reader disconnected; direction status will continue";
  // Each phase waits for the event it needs: the status file keeps moving
  // while the server is gone, and after it is back.
  EXPECT_TRUE(wait_until([&] { return occurrences(log(), connected) == 1 && chunks_now() > 10; })) << log();
  const int before_restart = chunks_now();
  pulse.stop();  // the source removes the FIFO it made
  EXPECT_TRUE(wait_until([&] { return log().find(disconnected) != std::string::npos; })) << log();
  EXPECT_TRUE(wait_until([&] { return chunks_now() > before_restart + 10; }));
  const int while_down = chunks_now();
  pulse.start("server2");
  EXPECT_TRUE(wait_until([&] { return occurrences(log(), connected) == 2; })) << log();
  EXPECT_TRUE(wait_until([&] { return chunks_now() > while_down + 10; }));
  kill(tool, SIGTERM);
  EXPECT_EQ(test::wait_child(tool), 0);
  const std::string text = log();
  EXPECT_EQ(occurrences(text, connected), 2u) << text;
  EXPECT_EQ(occurrences(text, disconnected), 1u) << text;
  EXPECT_LT(text.find(connected), text.find(disconnected));
  EXPECT_GT(text.rfind(connected), text.find(disconnected));
  EXPECT_NE(test::read_file(tmp.path("status.json")).find("\"status\": \"stopped\""), std::string::npos);
}

// sonderlark-doctor's virtual microphone check against a real server: the
// pipe source as the tool needs it (every check passes), missing, at a wrong rate.
INSTANTIATE_TEST_SUITE_P(Servers, VirtualMicrophone,
                         ::testing::Values(Server::kPulseAudio, Server::kPipeWirePactl, Server::kPipeWireDropIn),
                         [](const auto& info) { return server_name(info.param); });

#ifdef SONDERLARK_HAVE_MIC
// sonderlark-mic holds the FIFO open through a server restart (the tool sees
// no disconnect), so its route has the bit-for-bit run only.
TEST(PipeWireMicRoute, ARecorderGetsTheBeamBitForBit) { beam_arrives_bit_for_bit(Server::kPipeWireMic); }

// A restarted PipeWire server: the source is published again by itself.
TEST(PipeWireMicRoute, FollowsARestartedServer) {
  test::TempDir tmp;
  SoundServer stack(Server::kPipeWireMic, tmp, tmp.path("mic.pcm"));
  stack.start_pipewire();  // ready once the Pulse layer lists the source
  auto said = [&](const std::string& text) { return occurrences(test::read_file(tmp.path("mic.err")), text); };
  EXPECT_EQ(said("sonderlark-mic: source sonderlark_mic ready"), 1u);
  test::run({test::source_path("scripts/pipewire-stack"), "stop", tmp.path("pipewire")});
  EXPECT_TRUE(wait_until([&] { return said("sonderlark-mic: lost the PipeWire server; trying again every second") == 1; }));
  stack.start_pipewire();
  EXPECT_TRUE(wait_until([&] { return said("sonderlark-mic: connected to PipeWire again") == 1; }))
      << test::read_file(tmp.path("mic.err"));
  kill(stack.mic, SIGTERM);
  EXPECT_EQ(test::wait_child(stack.mic), 0);
  stack.mic = -1;
  EXPECT_FALSE(fs::exists(tmp.path("mic.pcm")));
}

// The FIFO it reads: made private and removed again, or, when something is
// there already, only a FIFO of this user's that no one else may write.
TEST(PipeWireMicRoute, TheFifoIsItsOwn) {
  test::TempDir tmp;
  fs::create_directories(tmp.path("run"));
  const std::string mic = test::program_path("sonderlark-mic");
  const Env no_server = {{"XDG_RUNTIME_DIR", tmp.path("run")}, {"PIPEWIRE_REMOTE", std::nullopt}};
  struct Row {
    std::string name;
    std::string setup;  // shell, in the folder
    std::string said;
  };
  const Row rows[] = {
      {"link", "mkfifo real.pcm && ln -s real.pcm mic.pcm", "symbolic link"},
      {"regular file", ": > mic.pcm", "not a FIFO"},
      {"writable by others", "mkfifo -m 666 mic.pcm", "writable by other users"},
      {"another user's", "mkfifo mic.pcm && chown nobody mic.pcm", "owned by another user"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    if (row.setup.find("chown") != std::string::npos && geteuid() != 0) continue;
    fs::remove_all(tmp.path("d"));
    fs::create_directories(tmp.path("d"));
    ASSERT_EQ(test::run({"sh", "-c", row.setup}, {}, tmp.path("d")).exit_code, 0);
    const test::RunResult r = test::run({"timeout", "60", mic, "--fifo", tmp.path("d/mic.pcm")}, no_server);
    EXPECT_EQ(r.exit_code, 1);
    EXPECT_EQ(r.err, "sonderlark-mic: " + tmp.path("d/mic.pcm") + " refused: " + row.said + "\n");
  }
  EXPECT_EQ(test::run({mic, "--bogus"}, no_server).exit_code, 2);
  EXPECT_EQ(test::run({mic}, {{"XDG_RUNTIME_DIR", std::nullopt}}).exit_code, 2);
  // Made when missing, waiting for a server, removed at the end.
  const int pid = test::spawn({mic}, no_server, tmp.path("mic.out"), tmp.path("mic.err"));
  const std::string fifo = tmp.path("run/sonderlark-beamformed-mic.pcm");
  struct stat info {};
  for (int i = 0; i < 600 && test::read_file(tmp.path("mic.err")).find("no PipeWire server") == std::string::npos; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  ASSERT_EQ(lstat(fifo.c_str(), &info), 0);
  EXPECT_TRUE(S_ISFIFO(info.st_mode));
  EXPECT_EQ(info.st_mode & 0777, 0600u);
  kill(pid, SIGTERM);
  EXPECT_EQ(test::wait_child(pid), 0);
  EXPECT_FALSE(fs::exists(fifo));
  EXPECT_EQ(test::read_file(tmp.path("mic.err")),
            "sonderlark-mic: no PipeWire server answers; trying every second\nsonderlark-mic: stopped\n");
}
#endif

// The doctor finds the pipe source the user loaded in the private runtime
// folder without being told its path, and says what is wrong with it; with
// none loaded it is a problem only when one is asked for.
TEST(PulseAudioMicrophone, DoctorFindsAndChecksThePipeSource) {
  struct Row {
    std::string settings;  // of the pipe source; empty: none loaded
    std::vector<std::string> args;
    std::string state;
    std::string text;
  };
  const std::vector<Row> rows = {
      {"format=s16le rate=16000 channels=1", {}, "virtual_microphone=ok", " (of the loaded pipe source): a FIFO"},
      {"", {}, "virtual_microphone=skipped", "none is set up (no pipe source loaded, no live run names one)"},
      {"", {"--virtual-mic"}, "virtual_microphone=problem", "load one in your private runtime folder"},
      {"format=s16le rate=48000 channels=1", {}, "virtual_microphone=problem",
       "expects s16le, 48000 Hz, 1 channels; the tool writes s16le"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.settings + " " + (row.args.empty() ? "" : row.args[0]));
    test::TempDir tmp;
    const std::string fifo = tmp.path("run/sonderlark-beamformed-mic.pcm");
    SoundServer pulse(Server::kPulseAudio, tmp, fifo, row.settings);
    pulse.start("pulse");
    test::write_file(tmp.path("frames.raw"), test::s32_frames(test::array_noise(2, 40000, 0.3, 1)));
    test::write_alsa_file_device(tmp.path("config"), "sonderlark_array", tmp.path("frames.raw"));
    Env env = pulse.env;
    env["XDG_CONFIG_HOME"] = tmp.path("config");
    std::vector<std::string> argv = {test::program_path("sonderlark-doctor"), "--device", "sonderlark_array",
                                     "--seconds", "2", "--event-output", tmp.path("status.json"), "--json"};
    argv.insert(argv.end(), row.args.begin(), row.args.end());
    const test::RunResult r = test::run(argv, env);
    EXPECT_EQ(r.exit_code, row.state.ends_with("=problem") ? 1 : 0) << r.out;
    EXPECT_EQ(test::doctor_states(r.out),
              "device=ok channels=ok gain=ok channel_order=skipped " + row.state + " live_status=skipped");
    EXPECT_NE(r.out.find(row.text), std::string::npos) << r.out;
  }
}

}  // namespace
}  // namespace sonderlark
