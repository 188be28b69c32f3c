// End to end: live mode feeding a real PulseAudio virtual microphone.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>

#include <chrono>
#include <cmath>
#include <cstring>
#include <filesystem>
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

// A private PulseAudio server with module-pipe-source on `fifo`.
struct PulseServer {
  const test::TempDir& tmp;
  std::string fifo;
  std::string source_settings;
  Env env;
  int pid = -1;

  // `source` the pipe source's settings; empty: no pipe source at all.
  PulseServer(const test::TempDir& dir, const std::string& fifo_path,
              const std::string& source = "format=s16le rate=16000 channels=1")
      : tmp(dir), fifo(fifo_path), source_settings(source) {
    fs::create_directories(tmp.path("run"));
    fs::permissions(tmp.path("run"), fs::perms::owner_all);
    env = {{"XDG_RUNTIME_DIR", tmp.path("run")}, {"HOME", tmp.dir.string()}, {"PULSE_SERVER", std::nullopt}};
    test::write_file(tmp.path("pa.pa"),
                     "load-module module-native-protocol-unix\n"
                     "load-module module-null-sink sink_name=nullsink\n" +
                         (source.empty() ? "" : "load-module module-pipe-source source_name=sonderlark_mic file=" +
                                                    fifo + " " + source + "\n"));
  }
  ~PulseServer() { stop(); }

  void start(const std::string& log_name) {
    pid = test::spawn({"pulseaudio", "-n", "-F", tmp.path("pa.pa"), "--exit-idle-time=-1", "--daemonize=no"}, env,
                      tmp.path(log_name + ".out"), tmp.path(log_name + ".err"));
    // Ready when the source is listed and its FIFO exists.
    for (int i = 0; i < 100; ++i) {
      const test::RunResult r = test::run({"pactl", "list", "short", "sources"}, env);
      if (r.exit_code == 0 && (source_settings.empty() || (r.out.find("sonderlark_mic") != std::string::npos &&
                                                          fs::exists(fifo)))) {
        return;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    FAIL() << "pulseaudio did not come up: " << test::read_file(tmp.path(log_name + ".err"));
  }
  void stop() {
    if (pid < 0) return;
    kill(pid, SIGTERM);
    test::wait_child(pid);
    pid = -1;
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

double rms(const std::vector<double>& x, std::size_t begin, std::size_t end) {
  double sum = 0.0;
  for (std::size_t i = begin; i < end; ++i) sum += x[i] * x[i];
  return std::sqrt(sum / static_cast<double>(end - begin));
}

TEST(VirtualMicrophone, ParecordHearsTheBeam) {
  test::TempDir tmp;
  const std::string frames = speech_frames(tmp);
  const std::string fifo = tmp.path("mic.pcm");
  PulseServer pulse(tmp, fifo);
  pulse.start("pulse");
  const int recorder = test::spawn({"parecord", "-d", "sonderlark_mic", "--rate=16000", "--channels=1",
                                    "--format=s16le", "--file-format=wav", tmp.path("rec.wav")},
                                   pulse.env, tmp.path("parecord.out"), tmp.path("parecord.err"));
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  test::PacedDevice device(tmp);
  Env env = pulse.env;
  env["XDG_CONFIG_HOME"] = tmp.path("config");
  const test::RunResult run = test::run({test::tool_path(), "--live", "--device", "sonderlark_array",
                                         "--live-duration", "4", "--pcm-output", fifo, "--event-output",
                                         tmp.path("status.json"), "--log", tmp.path("live.log")},
                                        env);
  std::this_thread::sleep_for(std::chrono::milliseconds(700));
  kill(recorder, SIGINT);
  test::wait_child(recorder);
  ASSERT_EQ(run.exit_code, 0) << run.out;
  EXPECT_NE(run.out.find("live PCM output connected: " + fifo), std::string::npos) << run.out;

  const int chunks = std::stoi(run.out.substr(run.out.find("live chunks_processed: ") + 23));
  ASSERT_GT(chunks, 40);
  const std::string beam = test::library_beam_bytes(frames, 1024, static_cast<std::size_t>(chunks));
  const WavData rec = read_wav(tmp.path("rec.wav"));
  ASSERT_EQ(rec.channels, 1);
  ASSERT_EQ(rec.sample_rate, 16000);
  const std::vector<double>& got = rec.samples[0];
  ASSERT_GT(got.size(), 16000u) << test::read_file(tmp.path("parecord.err"));

  // Best normalised cross-correlation over every alignment of the recording
  // against the beam, on the loudest second of the beam.
  std::vector<double> want(beam.size() / 2);
  for (std::size_t i = 0; i < want.size(); ++i) {
    int16_t v;
    std::memcpy(&v, beam.data() + 2 * i, 2);
    want[i] = v / 32768.0;
  }
  std::size_t loud = 0;
  double loud_rms = -1.0;
  for (std::size_t s = 0; s + 16000 <= want.size(); s += 800) {
    const double r = rms(want, s, s + 16000);
    if (r > loud_rms) {
      loud_rms = r;
      loud = s;
    }
  }
  const std::size_t window = 16000;
  double best = -1.0;
  int64_t best_shift = 0;
  for (int64_t shift = -static_cast<int64_t>(loud); shift + static_cast<int64_t>(loud + window) <= static_cast<int64_t>(got.size());
       ++shift) {
    double ab = 0.0, aa = 0.0, bb = 0.0;
    for (std::size_t i = loud; i < loud + window; i += 4) {  // every 4th sample is plenty for a >0.95 peak
      const double a = want[i];
      const double b = got[static_cast<std::size_t>(static_cast<int64_t>(i) + shift)];
      ab += a * b;
      aa += a * a;
      bb += b * b;
    }
    const double r = (aa > 0 && bb > 0) ? ab / std::sqrt(aa * bb) : 0.0;
    if (r > best) {
      best = r;
      best_shift = shift;
    }
  }
  EXPECT_GT(best, 0.95);
  const double level_db =
      20.0 * std::log10(rms(got, static_cast<std::size_t>(static_cast<int64_t>(loud) + best_shift),
                            static_cast<std::size_t>(static_cast<int64_t>(loud + window) + best_shift)) /
                        loud_rms);
  EXPECT_LT(std::fabs(level_db), 1.0);
  std::cout << "virtual mic: correlation " << best << " at shift " << best_shift << " samples, level "
            << level_db << " dB\n";
}

TEST(VirtualMicrophone, ServerRestartDisconnectsAndReconnects) {
  test::TempDir tmp;
  speech_frames(tmp);
  const std::string fifo = tmp.path("mic.pcm");
  PulseServer pulse(tmp, fifo);
  pulse.start("pulse1");
  test::PacedDevice device(tmp);
  Env env = pulse.env;
  env["XDG_CONFIG_HOME"] = tmp.path("config");
  const int tool = test::spawn({test::tool_path(), "--live", "--device", "sonderlark_array", "--live-duration", "7",
                                "--pcm-output", fifo, "--event-output", tmp.path("status.json"), "--log",
                                tmp.path("live.log")},
                               env, tmp.path("tool.out"), tmp.path("tool.err"));
  auto chunks_now = [&] {
    const std::string s = test::read_file(tmp.path("status.json"));
    const std::size_t at = s.find("\"chunks_processed\": ");
    return at == std::string::npos ? 0 : std::stoi(s.substr(at + 20));
  };
  std::this_thread::sleep_for(std::chrono::milliseconds(2000));
  const int before_restart = chunks_now();
  pulse.stop();  // the module removes its FIFO
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));
  const int while_down = chunks_now();
  pulse.start("pulse2");
  EXPECT_EQ(test::wait_child(tool), 0);
  const std::string log = test::read_file(tmp.path("live.log"));
  EXPECT_EQ(std::count(log.begin(), log.end(), '\n') > 0, true);
  std::size_t connects = 0;
  for (std::size_t at = log.find("live PCM output connected: "); at != std::string::npos;
       at = log.find("live PCM output connected: ", at + 1)) {
    ++connects;
  }
  EXPECT_EQ(connects, 2u) << log;
  const std::size_t disconnect = log.find("warning: live PCM output reader disconnected; direction status will continue");
  EXPECT_NE(disconnect, std::string::npos) << log;
  EXPECT_LT(log.find("live PCM output connected: "), disconnect);
  EXPECT_GT(log.rfind("live PCM output connected: "), disconnect);
  // The status file kept moving while the server was gone, and after.
  EXPECT_GT(before_restart, 10);
  EXPECT_GT(while_down, before_restart + 10);
  EXPECT_GT(chunks_now(), while_down + 10);
  EXPECT_NE(test::read_file(tmp.path("status.json")).find("\"status\": \"stopped\""), std::string::npos);
}

// sonderlark-doctor's virtual microphone check against a real server: the
// pipe source as the tool needs it (every check passes), missing, at a wrong rate.
TEST(VirtualMicrophone, DoctorChecksThePipeSource) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"format=s16le rate=16000 channels=1", "virtual_microphone=ok"},
      {"", "virtual_microphone=problem"},
      {"format=s16le rate=48000 channels=1", "virtual_microphone=problem"},
  };
  for (const auto& [settings, state] : cases) {
    SCOPED_TRACE(settings);
    test::TempDir tmp;
    const std::string fifo = tmp.path("mic.pcm");
    PulseServer pulse(tmp, fifo, settings);
    pulse.start("pulse");
    test::write_file(tmp.path("frames.raw"), test::s32_frames(test::array_noise(2, 40000, 0.3, 1)));
    test::write_alsa_file_device(tmp.path("config"), "sonderlark_array", tmp.path("frames.raw"));
    Env env = pulse.env;
    env["XDG_CONFIG_HOME"] = tmp.path("config");
    const std::string doctor = test::program_path("sonderlark-doctor");
    const test::RunResult r = test::run({doctor, "--device", "sonderlark_array", "--seconds", "2", "--pcm-output", fifo,
                                         "--event-output", tmp.path("status.json"), "--json"},
                                        env);
    EXPECT_EQ(r.exit_code, state.ends_with("=ok") ? 0 : 1) << r.out;
    EXPECT_EQ(test::doctor_states(r.out), "device=ok channels=ok gain=ok channel_order=skipped " + state + " live_status=skipped");
    const std::string expected = settings.empty() ? "pactl load-module module-pipe-source source_name=sonderlark_mic file="
                                 : state.ends_with("=ok") ? " feeds module-pipe-source "
                                                         : "expects s16le, 48000 Hz, 1 channels; the tool writes s16le";
    EXPECT_NE(r.out.find(expected), std::string::npos) << r.out;
  }
}

}  // namespace
}  // namespace sonderlark
