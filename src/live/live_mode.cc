#include "live/live_mode.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <chrono>
#include <cmath>
#include <malloc.h>
#include <cstdlib>
#include <optional>
#include <sstream>

#include "cli/exit_status.h"
#include "dsp/chain.h"
#include "report/live_status.h"
#include "util/text.h"
#include "util/vector_clones.h"

namespace sonderlark {
namespace {

constexpr double kScale32 = 1.0 / 2147483648.0;  // 2^-31

// Four-channel frames to one scaled sequence per channel. The clamp is never
// taken for 32-bit input; it is kept as a guard.
SONDERLARK_VECTOR_CLONES
void split_frames(const int32_t* interleaved, std::size_t frame_count, double* out0, double* out1, double* out2,
                  double* out3) {
  auto scaled = [](int32_t raw) { return std::min(std::max(raw * kScale32, -1.0), 1.0); };
  for (std::size_t i = 0; i < frame_count; ++i) {
    out0[i] = scaled(interleaved[4 * i]);
    out1[i] = scaled(interleaved[4 * i + 1]);
    out2[i] = scaled(interleaved[4 * i + 2]);
    out3[i] = scaled(interleaved[4 * i + 3]);
  }
}

// Stopping a run by signal. The first SIGINT, SIGTERM or SIGHUP is noted
// and wakes the run's waits through a pipe; the run then ends as a finite
// run ends on time. A second one ends the process at once.
volatile std::sig_atomic_t g_stop_signal = 0;
int g_wake_write = -1;

extern "C" void on_stop_signal(int number) {
  if (g_stop_signal != 0) {
    std::signal(number, SIG_DFL);
    std::raise(number);
    return;
  }
  g_stop_signal = number;
  const int saved = errno;
  const char byte = 1;
  if (write(g_wake_write, &byte, 1) < 0) {
    // The pipe holds a byte already: the run is awake either way.
  }
  errno = saved;
}

// Installs the handlers; the read end of the wake pipe, or -1 without one.
int catch_stop_signals() {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0) return -1;
  g_wake_write = fds[1];
  struct sigaction action {};
  action.sa_handler = on_stop_signal;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESTART;
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) sigaction(number, &action, nullptr);
  return fds[0];
}

constexpr int kKeepHeapBytes = 64 << 20;        // the largest chunk's buffers, many times over
constexpr const char* kCaptureError = "arecord exited with nonzero status";

std::string flag(bool value) { return value ? "true" : "false"; }

// One status record from the run's state.
void write_status(const LiveState& state, const Options& options, bool pcm_connected,
                  bool live_processing, const std::string& status, const std::string& error,
                  int exit_code, const std::string& stderr_text) {
  write_live_event_json(state.status_path, options, state.last_direction, state.last_diagnostics,
                        state.speech_seen, state.chunks_processed, pcm_connected, live_processing,
                        status, error, state.capture.capture_command, exit_code, stderr_text);
}

void log_chunk(Logger& logger, const LiveState& state, const ChannelDiagnostics& diagnostics,
               const std::vector<double>& beam, const DirectionEstimate& direction,
               const std::vector<std::string>& gain_warnings) {
  double beam_peak = 0.0;
  for (double v : beam) beam_peak = std::max(beam_peak, std::fabs(v));
  const double rms0 = diagnostics.rms.empty() ? 0.0 : diagnostics.rms[0];
  logger.line("live chunk=" + std::to_string(state.chunks_processed) +
              " processed_rms_ch0=" + fixed(rms0, 6) + " beam_peak=" + fixed(beam_peak, 6) +
              " direction_angle=" + fixed(direction.angle_degrees, 6) +
              " direction_confidence=" + fixed(direction.confidence, 6) +
              " low_confidence=" + flag(direction.low_confidence) +
              " speech_seen=" + flag(state.speech_seen));
  for (const std::string& warning : gain_warnings) logger.line("warning: " + warning);
}

void process_chunk(LiveState& state, const Options& options, std::size_t frames, Logger& logger) {
  ChainResult chain = run_chain(chunk_from_frames(state.frame_buffer.data(), frames), options.input_gain_db,
                                "live processed channel", "processed-live");
  const ChannelDiagnostics& diagnostics = chain.processed;
  const DirectionEstimate& direction = chain.direction;
  const BeamformResult& beam = chain.beam;
  state.last_direction = direction;
  state.last_diagnostics = diagnostics;
  if (!state.speech_seen) state.speech_seen = detected_speech(diagnostics.rms);

  ++state.chunks_processed;
  write_status(state, options, state.pcm.fd >= 0, true, "running", "", -1, "");
  if (state.pcm.fd < 0) open_pcm_output(state.pcm, logger);
  if (state.pcm.fd >= 0 && !beam.samples.empty()) write_pcm_chunk(state.pcm, beam.samples, logger);

  if (direction.low_confidence) ++state.low_confidence_chunks;
  ++state.chunks_since_start;
  if (state.chunks_processed == 1 || state.chunks_processed % 50 == 0) {
    log_chunk(logger, state, diagnostics, beam.samples, direction, chain.gain_warnings);
  }
}

// Collects a child that ended its stream and publishes the stop.
CaptureStop handle_stop(LiveState& state, const Options& options, Logger& logger) {
  const CaptureStop stop = stop_capture(state.capture);
  const std::string stderr_text = read_text_file(state.stderr_path);
  logger.line("warning: arecord stopped during live mode with status " +
              std::to_string(stop.raw_status) + ", exit_code " + std::to_string(stop.exit_code));
  if (!stderr_text.empty()) logger.line("arecord_stderr: " + stderr_text);
  write_status(state, options, state.pcm.fd >= 0, true, "restarting", kCaptureError,
               stop.exit_code, stderr_text);
  close_pcm_output(state.pcm);
  return stop;
}

}  // namespace

std::string choose_status_path(const Options& options) {
  if (!options.event_output_path.empty()) return options.event_output_path;
  const char* state_home = std::getenv("XDG_STATE_HOME");
  if (state_home != nullptr && *state_home != '\0') {
    return std::string(state_home) + "/sonderscope/sonderlark-live-event.json";
  }
  const char* home = std::getenv("HOME");
  if (home != nullptr && *home != '\0') {
    return std::string(home) + "/.local/state/sonderscope/sonderlark-live-event.json";
  }
  return "build/sonderlark-live-event.json";
}

WavData chunk_from_frames(const int32_t* interleaved, std::size_t frame_count) {
  WavData chunk;
  chunk.sample_rate = kLiveSampleRate;
  chunk.channels = kLiveChannels;
  chunk.bits_per_sample = 32;
  chunk.samples.assign(kLiveChannels, {});
  double* out[kLiveChannels];
  for (int c = 0; c < kLiveChannels; ++c) {
    chunk.samples[static_cast<std::size_t>(c)].resize(frame_count);
    out[c] = chunk.samples[static_cast<std::size_t>(c)].data();
  }
  split_frames(interleaved, frame_count, out[0], out[1], out[2], out[3]);
  return chunk;
}

int run_live_mode(const Options& options, Logger& logger) {
  // Every chunk frees and allocates the same buffers again. Keep freed memory
  // in the heap rather than handing it back to the kernel each time: fresh
  // pages cost a fault and a clearing apiece.
  mallopt(M_TRIM_THRESHOLD, kKeepHeapBytes);
  mallopt(M_MMAP_THRESHOLD, kKeepHeapBytes);
  logger.line("Sonderlark live mode: raw Kinect mic array -> input gain -> beamforming -> mono s16le PCM");
  logger.line("live_pcm_output: " + options.pcm_output_path);
  logger.line("live_duration_seconds: " + std::to_string(options.live_duration_seconds));
  logger.line("live_chunk_frames: " + std::to_string(options.live_chunk_frames));

  LiveState state;
  state.capture.wake_fd = catch_stop_signals();
  state.status_path = choose_status_path(options);
  logger.line("live_event_json: " + state.status_path);
  state.stderr_path = state.status_path + ".arecord.stderr";
  state.capture.capture_command = build_capture_command(options.device);
  state.capture.stderr_path = state.stderr_path;
  logger.line("live capture command: " + state.capture.capture_command);
  logger.line("live arecord stderr: " + state.stderr_path);

  if (!start_capture(state.capture, logger)) return kExitLiveStartFailed;
  state.pcm.path = options.pcm_output_path;
  open_pcm_output(state.pcm, logger);

  const std::size_t chunk_frames = static_cast<std::size_t>(options.live_chunk_frames);
  state.frame_buffer.assign(chunk_frames * kLiveChannels, 0);
  const auto start = std::chrono::steady_clock::now();
  const bool finite = options.live_duration_seconds > 0;
  // A finite run ends on time even when the child sends nothing: no read
  // waits past the end.
  std::optional<std::chrono::steady_clock::time_point> deadline;
  if (finite) deadline = start + std::chrono::seconds(options.live_duration_seconds);
  // The child that ended the run, when it stopped before the end.
  CaptureStop last_stop;

  while (g_stop_signal == 0) {
    if (finite) {
      const auto elapsed = std::chrono::duration_cast<std::chrono::nanoseconds>(
          std::chrono::steady_clock::now() - start);
      if (elapsed.count() / 1000000000 >= options.live_duration_seconds) break;
    }
    const CaptureRead read = read_capture(state.capture, reinterpret_cast<char*>(state.frame_buffer.data()),
                                          state.frame_buffer.size() * sizeof(int32_t), deadline);
    if (read.timed_out || read.woken) break;  // the run's time is up, or it was asked to stop
    if (read.bytes > 0) {
      const std::size_t frames = read.bytes / (kLiveChannels * sizeof(int32_t));  // an incomplete frame is dropped
      if (frames > 0) process_chunk(state, options, frames, logger);
      continue;
    }
    if (g_stop_signal != 0) break;  // the same signal may have ended the child
    last_stop = handle_stop(state, options, logger);
    if (finite) break;
    if (!restart_capture(state.capture, state.chunks_since_start, logger)) break;
    state.chunks_since_start = 0;
  }

  const int stop_signal = g_stop_signal;
  if (stop_signal != 0) logger.line("live stop requested by signal " + std::to_string(stop_signal));

  // Final pass. A child still running is stopped here; one that already
  // stopped hands on its own status.
  close_pcm_output(state.pcm);
  const CaptureStop final_stop = state.capture.pid >= 0 ? stop_capture(state.capture) : last_stop;
  const std::string stderr_text = read_text_file(state.stderr_path);
  if (final_stop.raw_status != 0) {
    logger.line("error: arecord exited with status " + std::to_string(final_stop.raw_status) +
                ", exit_code " + std::to_string(final_stop.exit_code));
    if (!stderr_text.empty()) logger.line("arecord_stderr: " + stderr_text);
  }
  logger.line("live chunks_processed: " + std::to_string(state.chunks_processed));
  logger.line("live low_confidence_chunks: " + std::to_string(state.low_confidence_chunks));
  logger.line("live speech_detected: " + flag(state.speech_seen));

  // A run asked to stop ends as a finite run whose time is up.
  if (state.chunks_processed > 0 && (finite || stop_signal != 0)) {
    write_status(state, options, false, false, "stopped", "", final_stop.exit_code, stderr_text);
    logger.line(finite ? "live clean finite-duration exit" : "live clean exit");
    return kExitOk;
  }
  const bool failed = final_stop.raw_status != 0;
  write_status(state, options, false, false, failed ? "degraded" : "stopped",
               failed ? kCaptureError : "", final_stop.exit_code, stderr_text);
  logger.line("live clean exit");
  return failed ? kExitLiveDegraded : kExitOk;
}

}  // namespace sonderlark
