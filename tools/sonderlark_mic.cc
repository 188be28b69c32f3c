// sonderlark-mic: the live beam as a PipeWire source. Reads the s16le mono
// 16 kHz stream that `sonderlark --live --pcm-output FIFO` writes and
// publishes it as an Audio/Source node that recorders and calls can pick.
//
// The node drives its own graph cycles: each 64 ms chunk (1024 samples) is
// handed on as soon as it has arrived whole, instead of waiting for the next
// tick of a clock that knows nothing of the FIFO. Cycles are kept at least
// 16 ms apart (a backlog is passed on in steps, not in a burst that
// recorders drop), and while the FIFO is silent for more than 100 ms the
// node sends silence at real time, so that a recording keeps its clock.
// Single-threaded: the FIFO, the timers and the stream's callbacks all run
// on the one main loop.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <pipewire/pipewire.h>
#include <spa/param/audio/format-utils.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iostream>
#include <optional>
#include <string>

#include "util/args.h"

namespace {

constexpr int kRate = 16000;
constexpr uint32_t kQuantumFrames = 1024;  // one live chunk
constexpr std::size_t kQuantumBytes = kQuantumFrames * 2;
constexpr std::size_t kMaxPendingBytes = 64 * 1024;  // about 2 s; older samples are dropped
constexpr int64_t kCycleGapNs = 16'000'000;
constexpr int64_t kSilenceAfterNs = 100'000'000;
constexpr int64_t kQuantumNs = int64_t{kQuantumFrames} * 1'000'000'000 / kRate;

volatile sig_atomic_t g_stop = 0;
pw_main_loop* g_loop = nullptr;

int64_t now_ns() {
  timespec t{};
  clock_gettime(CLOCK_MONOTONIC, &t);
  return int64_t{t.tv_sec} * 1'000'000'000 + t.tv_nsec;
}

void usage(const char* program) {
  std::cout << "Usage: " << program << " [--fifo PATH] [--name NAME]\n"
            << "  --fifo PATH   The FIFO sonderlark --live writes (--pcm-output). Default:\n"
            << "                $XDG_RUNTIME_DIR/sonderlark-beamformed-mic.pcm. Made (mode 0600) when\n"
            << "                missing and removed at the end; an existing one must be your own FIFO.\n"
            << "  --name NAME   The source's node name, as recorders and calls pick it. Default: sonderlark_mic.\n"
            << "Runs until SIGINT or SIGTERM; follows a restarted PipeWire server.\n"
            << "Exit status: 0 stopped by a signal, 1 the FIFO was refused, 2 refused command line.\n";
}

// The FIFO: ours, private, never through a link. Empty when accepted.
std::string claim_fifo(const std::string& path, bool& created) {
  struct stat info {};
  if (lstat(path.c_str(), &info) != 0) {
    if (errno != ENOENT) return std::strerror(errno);
    if (mkfifo(path.c_str(), 0600) != 0) return std::strerror(errno);
    created = true;
    return "";
  }
  if (S_ISLNK(info.st_mode)) return "symbolic link";
  if (!S_ISFIFO(info.st_mode)) return "not a FIFO";
  if (info.st_uid != geteuid()) return "owned by another user";
  if ((info.st_mode & 022) != 0) return "writable by other users";
  return "";
}

struct Mic {
  std::string name;
  int fifo = -1;
  pw_loop* loop = nullptr;
  pw_context* context = nullptr;
  pw_core* core = nullptr;
  spa_hook core_listener{};
  pw_stream* stream = nullptr;
  spa_hook stream_listener{};
  spa_source* fifo_source = nullptr;
  spa_source* timer = nullptr;
  std::string pending;  // samples read and not yet handed on
  bool streaming = false;
  bool cycle_in_flight = false;
  int64_t last_cycle = 0;
  int64_t last_data = 0;
  bool lost = false;  // the server went away: reconnect
  bool said_waiting = false;
};

void arm_timer(Mic& mic, int64_t in_ns) {
  timespec value{static_cast<time_t>(in_ns / 1'000'000'000), static_cast<long>(in_ns % 1'000'000'000)};
  timespec none{0, 0};
  pw_loop_update_timer(mic.loop, mic.timer, &value, &none, false);
}

// Starts a cycle when a quantum is in and the last one is far enough back;
// otherwise sets the timer for when one may start (or silence is due).
void schedule(Mic& mic) {
  // Another driver runs the graph: process() then comes at its pace.
  if (!mic.streaming || mic.cycle_in_flight || mic.stream == nullptr || !pw_stream_is_driving(mic.stream)) return;
  const int64_t now = now_ns();
  if (mic.pending.size() < kQuantumBytes && now - mic.last_data > kSilenceAfterNs &&
      now - mic.last_cycle >= kQuantumNs) {
    mic.pending.append(kQuantumBytes - mic.pending.size(), '\0');  // silence keeps the clock of a recording
  }
  if (mic.pending.size() >= kQuantumBytes) {
    const int64_t wait = mic.last_cycle + kCycleGapNs - now;
    if (wait > 0) {
      arm_timer(mic, wait);
      return;
    }
    mic.cycle_in_flight = true;
    mic.last_cycle = now;
    pw_stream_trigger_process(mic.stream);
    return;
  }
  arm_timer(mic, kSilenceAfterNs);
}

void on_fifo(void* data, int, uint32_t) {
  Mic& mic = *static_cast<Mic*>(data);
  char buffer[16384];
  for (;;) {
    const ssize_t n = read(mic.fifo, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    mic.pending.append(buffer, static_cast<std::size_t>(n));
    mic.last_data = now_ns();
  }
  // While nobody records, only the latest chunk is kept: a recording that
  // starts gets it, and no older audio.
  if (!mic.streaming && mic.pending.size() > kQuantumBytes) mic.pending.erase(0, mic.pending.size() - kQuantumBytes);
  if (mic.pending.size() > kMaxPendingBytes) {
    const std::size_t drop = (mic.pending.size() - kMaxPendingBytes + 1) & ~std::size_t{1};
    mic.pending.erase(0, drop);
  }
  schedule(mic);
}

void on_timer(void* data, uint64_t) { schedule(*static_cast<Mic*>(data)); }

void on_process(void* data) {
  Mic& mic = *static_cast<Mic*>(data);
  pw_buffer* b = pw_stream_dequeue_buffer(mic.stream);
  if (b == nullptr) return;
  spa_data& d = b->buffer->datas[0];
  if (d.data == nullptr) {
    pw_stream_queue_buffer(mic.stream, b);
    return;
  }
  std::size_t bytes = std::min<std::size_t>(kQuantumBytes, d.maxsize) & ~std::size_t{1};
  const std::size_t have = std::min(bytes, mic.pending.size());
  std::memcpy(d.data, mic.pending.data(), have);
  std::memset(static_cast<char*>(d.data) + have, 0, bytes - have);  // a graph cycle we did not start
  mic.pending.erase(0, have);
  d.chunk->offset = 0;
  d.chunk->stride = 2;
  d.chunk->size = static_cast<uint32_t>(bytes);
  pw_stream_queue_buffer(mic.stream, b);
}

void on_trigger_done(void* data) {
  Mic& mic = *static_cast<Mic*>(data);
  mic.cycle_in_flight = false;
  schedule(mic);
}

void on_state(void* data, pw_stream_state, pw_stream_state state, const char*) {
  Mic& mic = *static_cast<Mic*>(data);
  mic.streaming = state == PW_STREAM_STATE_STREAMING;
  mic.cycle_in_flight = false;
  if (!mic.streaming && mic.pending.size() > kQuantumBytes) mic.pending.erase(0, mic.pending.size() - kQuantumBytes);
  if (state == PW_STREAM_STATE_ERROR || state == PW_STREAM_STATE_UNCONNECTED) {
    mic.lost = true;
    pw_main_loop_quit(g_loop);
    return;
  }
  schedule(mic);
}

void on_core_error(void* data, uint32_t id, int, int res, const char*) {
  Mic& mic = *static_cast<Mic*>(data);
  if (id == PW_ID_CORE && res == -EPIPE) {
    mic.lost = true;
    pw_main_loop_quit(g_loop);
  }
}

void on_signal(void*, int) {
  g_stop = 1;
  pw_main_loop_quit(g_loop);
}

const pw_stream_events kStreamEvents = [] {
  pw_stream_events e{};
  e.version = PW_VERSION_STREAM_EVENTS;
  e.state_changed = on_state;
  e.process = on_process;
  e.trigger_done = on_trigger_done;
  return e;
}();

const pw_core_events kCoreEvents = [] {
  pw_core_events e{};
  e.version = PW_VERSION_CORE_EVENTS;
  e.error = on_core_error;
  return e;
}();

enum class SessionEnd { kStopped, kNoServer, kLost };

// One session with the server, until a signal ends it or the server goes.
SessionEnd run_session(Mic& mic, bool& connected_once) {
  mic.lost = false;
  mic.streaming = false;
  mic.cycle_in_flight = false;
  mic.pending.clear();
  mic.context = pw_context_new(mic.loop, nullptr, 0);
  mic.core = mic.context != nullptr ? pw_context_connect(mic.context, nullptr, 0) : nullptr;
  if (mic.core == nullptr) {
    if (mic.context != nullptr) pw_context_destroy(mic.context);
    mic.context = nullptr;
    return SessionEnd::kNoServer;
  }
  spa_zero(mic.core_listener);
  pw_core_add_listener(mic.core, &mic.core_listener, &kCoreEvents, &mic);
  const std::string latency = std::to_string(kQuantumFrames) + "/" + std::to_string(kRate);
  pw_properties* props = pw_properties_new(PW_KEY_MEDIA_TYPE, "Audio", PW_KEY_MEDIA_CATEGORY, "Capture",
                                           PW_KEY_MEDIA_CLASS, "Audio/Source", PW_KEY_NODE_NAME, mic.name.c_str(),
                                           PW_KEY_NODE_DESCRIPTION, "Sonderlark beamformed microphone",
                                           PW_KEY_NODE_LATENCY, latency.c_str(), PW_KEY_NODE_RATE, "1/16000",
                                           "node.force-quantum", std::to_string(kQuantumFrames).c_str(), nullptr);
  mic.stream = pw_stream_new(mic.core, mic.name.c_str(), props);
  spa_zero(mic.stream_listener);
  pw_stream_add_listener(mic.stream, &mic.stream_listener, &kStreamEvents, &mic);
  uint8_t pod_buffer[1024];
  spa_pod_builder builder = SPA_POD_BUILDER_INIT(pod_buffer, sizeof pod_buffer);
  spa_audio_info_raw info{};
  info.format = SPA_AUDIO_FORMAT_S16_LE;
  info.rate = kRate;
  info.channels = 1;
  info.position[0] = SPA_AUDIO_CHANNEL_MONO;
  const spa_pod* params[1] = {spa_format_audio_raw_build(&builder, SPA_PARAM_EnumFormat, &info)};
  const int connected = pw_stream_connect(
      mic.stream, PW_DIRECTION_OUTPUT, PW_ID_ANY,
      static_cast<pw_stream_flags>(PW_STREAM_FLAG_DRIVER | PW_STREAM_FLAG_MAP_BUFFERS), params, 1);
  if (connected == 0) {
    std::cerr << (connected_once ? "sonderlark-mic: connected to PipeWire again\n"
                                 : "sonderlark-mic: source " + mic.name + " ready\n");
    connected_once = true;
    mic.said_waiting = false;
    pw_main_loop_run(g_loop);
  }
  pw_stream_destroy(mic.stream);
  mic.stream = nullptr;
  spa_hook_remove(&mic.core_listener);
  pw_core_disconnect(mic.core);
  mic.core = nullptr;
  pw_context_destroy(mic.context);
  mic.context = nullptr;
  if (connected != 0) return SessionEnd::kNoServer;
  return mic.lost ? SessionEnd::kLost : SessionEnd::kStopped;
}

// Nothing to go on, else the exit status. The FIFO defaults to the
// private runtime folder's.
std::optional<int> parse_mic_args(int argc, char** argv, std::string& fifo_path, std::string& name) {
  sonderlark::ArgReader args{argc, argv};
  const std::string program = sonderlark::program_name(args, "sonderlark-mic");
  while (const std::optional<std::string> arg = sonderlark::next_arg(args)) {
    if (*arg == "--help" || *arg == "-h") {
      usage(program.c_str());
      return 0;
    }
    const bool takes_value = *arg == "--fifo" || *arg == "--name";
    const std::optional<std::string> value =
        takes_value && args.next < argc && argv[args.next][0] != '\0' ? sonderlark::next_arg(args) : std::nullopt;
    if (!value) {
      std::cerr << "unknown or incomplete option: " << *arg << "\n";
      usage(program.c_str());
      return 2;
    }
    (*arg == "--fifo" ? fifo_path : name) = *value;
  }
  if (fifo_path.empty()) {
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    if (runtime == nullptr || *runtime == '\0') {
      std::cerr << "sonderlark-mic: no --fifo and no XDG_RUNTIME_DIR to put it in\n";
      usage(program.c_str());
      return 2;
    }
    fifo_path = std::string(runtime) + "/sonderlark-beamformed-mic.pcm";
  }
  return std::nullopt;
}

// Opens the claimed FIFO for reading into mic.fifo, and for writing into
// `keep_open` (a writer of our own: the FIFO never reads as ended between
// runs). Why it was refused, or empty.
std::string open_fifo(const std::string& fifo_path, Mic& mic, int& keep_open) {
  mic.fifo = open(fifo_path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
  keep_open = mic.fifo >= 0 ? open(fifo_path.c_str(), O_WRONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC) : -1;
  struct stat info {};
  if (mic.fifo < 0 || keep_open < 0 || fstat(mic.fifo, &info) != 0 || !S_ISFIFO(info.st_mode)) {
    return mic.fifo < 0 || keep_open < 0 ? std::strerror(errno) : "not a FIFO";
  }
  return "";
}

// Sessions with the server until stopped; a second between attempts.
void serve(Mic& mic) {
  bool connected_once = false;
  while (g_stop == 0) {
    const SessionEnd end = run_session(mic, connected_once);
    if (end == SessionEnd::kStopped || g_stop != 0) break;
    // Said once per loss, not once per attempt.
    if (end == SessionEnd::kLost) {
      std::cerr << "sonderlark-mic: lost the PipeWire server; trying again every second\n";
      mic.said_waiting = true;
    } else if (!mic.said_waiting) {
      std::cerr << "sonderlark-mic: no PipeWire server answers; trying every second\n";
      mic.said_waiting = true;
    }
    // A second between attempts; the FIFO is drained meanwhile (nobody records).
    const int64_t until = now_ns() + 1'000'000'000;
    while (g_stop == 0 && now_ns() < until) {
      pw_loop_enter(mic.loop);
      pw_loop_iterate(mic.loop, 100);
      pw_loop_leave(mic.loop);
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  std::string fifo_path;
  std::string name = "sonderlark_mic";
  if (const std::optional<int> status = parse_mic_args(argc, argv, fifo_path, name)) return *status;
  bool created = false;
  std::string refused = claim_fifo(fifo_path, created);
  Mic mic;
  mic.name = name;
  int keep_open = -1;
  if (refused.empty()) refused = open_fifo(fifo_path, mic, keep_open);
  if (!refused.empty()) {
    std::cerr << "sonderlark-mic: " << fifo_path << " refused: " << refused << "\n";
    if (created) unlink(fifo_path.c_str());
    return 1;
  }

  pw_init(&argc, &argv);
  g_loop = pw_main_loop_new(nullptr);
  mic.loop = pw_main_loop_get_loop(g_loop);
  pw_loop_add_signal(mic.loop, SIGINT, on_signal, nullptr);
  pw_loop_add_signal(mic.loop, SIGTERM, on_signal, nullptr);
  mic.fifo_source = pw_loop_add_io(mic.loop, mic.fifo, SPA_IO_IN, false, on_fifo, &mic);
  mic.timer = pw_loop_add_timer(mic.loop, on_timer, &mic);
  serve(mic);
  pw_loop_destroy_source(mic.loop, mic.timer);
  pw_loop_destroy_source(mic.loop, mic.fifo_source);
  pw_main_loop_destroy(g_loop);
  pw_deinit();
  close(keep_open);
  close(mic.fifo);
  if (created) unlink(fifo_path.c_str());
  std::cerr << "sonderlark-mic: stopped\n";
  return 0;
}
