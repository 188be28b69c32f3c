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

#include "util/exit_status.h"
#include "dsp/recording.h"
#include "report/live_status.h"
#include "util/files.h"
#include "util/text.h"

namespace sonderlark {
namespace {

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
void write_status(const LiveState& state, const LiveSettings& settings, bool pcm_connected,
                  bool live_processing, const std::string& status, const std::string& error,
                  int exit_code, const std::string& stderr_text) {
  LiveStatus record;
  record.live_processing = live_processing;
  record.status = status;
  record.error = error;
  record.device = settings.device;
  record.arecord_command = state.capture.capture_command;
  record.arecord_exit_code = exit_code;
  record.arecord_stderr = stderr_text;
  record.input_gain_db = settings.input_gain_db;
  record.chunks_processed = state.chunks_processed;
  record.pcm_output = settings.pcm_output_path;
  record.pcm_output_connected = pcm_connected;
  record.direction_angle_degrees = state.last_direction.angle_degrees;
  record.direction_confidence = state.last_direction.confidence;
  record.direction_low_confidence = state.last_direction.low_confidence;
  record.direction_method = state.last_direction.method;
  record.direction_samples_source = state.last_direction.samples_source;
  record.detected_speech = state.speech_seen;
  record.processed_channel_rms = state.last_diagnostics.rms;
  write_live_status(state.status_path, record);
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

void process_chunk(LiveState& state, const LiveSettings& settings, std::size_t frames, Logger& logger) {
  const ChunkAnalysis chunk = analyse_chunk(state.frame_buffer.data(), frames, settings.input_gain_db);
  const ChannelDiagnostics& diagnostics = chunk.chain.processed;
  const DirectionEstimate& direction = chunk.chain.direction;
  state.last_direction = direction;
  state.last_diagnostics = diagnostics;
  if (!state.speech_seen) state.speech_seen = detected_speech(diagnostics.rms);

  ++state.chunks_processed;
  write_status(state, settings, state.pcm.fd.valid(), true, "running", "", -1, "");
  if (!state.pcm.fd.valid()) open_pcm_output(state.pcm, logger);
  if (state.pcm.fd.valid() && !chunk.beam.empty()) write_pcm_chunk(state.pcm, chunk.beam, logger);

  if (direction.low_confidence) ++state.low_confidence_chunks;
  ++state.chunks_since_start;
  if (state.chunks_processed == 1 || state.chunks_processed % 50 == 0) {
    log_chunk(logger, state, diagnostics, chunk.beam, direction, chunk.chain.gain_warnings);
  }
}

// Collects a child that ended its stream and publishes the stop.
CaptureStop handle_stop(LiveState& state, const LiveSettings& settings, Logger& logger) {
  const CaptureStop stop = stop_capture(state.capture);
  const std::string stderr_text = read_text_file(state.stderr_path);
  logger.line("warning: arecord stopped during live mode with status " +
              std::to_string(stop.raw_status) + ", exit_code " + std::to_string(stop.exit_code));
  if (!stderr_text.empty()) logger.line("arecord_stderr: " + stderr_text);
  write_status(state, settings, state.pcm.fd.valid(), true, "restarting", kCaptureError,
               stop.exit_code, stderr_text);
  close_pcm_output(state.pcm);
  return stop;
}

}  // namespace

std::string default_pcm_output_path() { return "/tmp/sonderlark-beamformed-mic.pcm"; }

std::string capture_stderr_path(const std::string& status_path) { return status_path + ".arecord.stderr"; }

std::string default_status_path() {
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

ChunkAnalysis analyse_chunk(const int32_t* interleaved, std::size_t frame_count, double gain_db) {
  WavData format;
  format.sample_rate = kLiveSampleRate;
  format.channels = kLiveChannels;
  format.bits_per_sample = 32;
  const auto* bytes = reinterpret_cast<const uint8_t*>(interleaved);
  const FrameSource source{kLiveChannels, kLiveSampleRate, frame_count,
                           [&](uint64_t first, uint64_t count, double* const* out) {
                             decode_frames(bytes + first * kLiveChannels * sizeof(int32_t), count, format, out);
                           }};
  ChunkAnalysis chunk;
  chunk.beam.reserve(frame_count);
  const AnalysisLabels labels{"", "live processed channel", "processed-live", ""};
  chunk.chain = analyse_recording(
      source, gain_db, [&chunk](const double* s, std::size_t n) { chunk.beam.insert(chunk.beam.end(), s, s + n); },
      labels, frame_count);
  return chunk;
}

namespace {

// Reads and processes chunks until the run's time is up, it is asked to
// stop, or the capture fails for good. The stop of the child that ended
// the run, when it stopped before the end.
CaptureStop run_chunks(LiveState& state, const LiveSettings& settings, Logger& logger) {
  const std::size_t chunk_frames = static_cast<std::size_t>(settings.chunk_frames);
  state.frame_buffer.assign(chunk_frames * kLiveChannels, 0);
  const auto start = std::chrono::steady_clock::now();
  const bool finite = settings.duration_seconds > 0;
  // A finite run ends on time even when the child sends nothing: no read
  // waits past the end.
  std::optional<std::chrono::steady_clock::time_point> deadline;
  if (finite) deadline = start + std::chrono::seconds(settings.duration_seconds);
  CaptureStop last_stop;
  while (g_stop_signal == 0) {
    if (finite) {
      const auto elapsed = std::chrono::duration_cast<std::chrono::nanoseconds>(
          std::chrono::steady_clock::now() - start);
      if (elapsed.count() / 1000000000 >= settings.duration_seconds) break;
    }
    const CaptureRead read = read_capture(state.capture, reinterpret_cast<char*>(state.frame_buffer.data()),
                                          state.frame_buffer.size() * sizeof(int32_t), deadline);
    if (read.timed_out || read.woken) break;  // the run's time is up, or it was asked to stop
    if (read.bytes > 0) {
      const std::size_t frames = read.bytes / (kLiveChannels * sizeof(int32_t));  // an incomplete frame is dropped
      if (frames > 0) process_chunk(state, settings, frames, logger);
      continue;
    }
    if (g_stop_signal != 0) break;  // the same signal may have ended the child
    last_stop = handle_stop(state, settings, logger);
    if (finite) break;
    if (!restart_capture(state.capture, state.chunks_since_start, logger)) break;
    state.chunks_since_start = 0;
  }
  return last_stop;
}

// Final pass. A child still running is stopped here; one that already
// stopped hands on its own status. The run's exit status.
int finish_run(LiveState& state, const LiveSettings& settings, const CaptureStop& last_stop, Logger& logger) {
  const int stop_signal = g_stop_signal;
  if (stop_signal != 0) logger.line("live stop requested by signal " + std::to_string(stop_signal));
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
  const bool finite = settings.duration_seconds > 0;
  if (state.chunks_processed > 0 && (finite || stop_signal != 0)) {
    write_status(state, settings, false, false, "stopped", "", final_stop.exit_code, stderr_text);
    logger.line(finite ? "live clean finite-duration exit" : "live clean exit");
    return kExitOk;
  }
  const bool failed = final_stop.raw_status != 0;
  write_status(state, settings, false, false, failed ? "degraded" : "stopped",
               failed ? kCaptureError : "", final_stop.exit_code, stderr_text);
  logger.line("live clean exit");
  return failed ? kExitLiveDegraded : kExitOk;
}

}  // namespace

int run_live_mode(const LiveSettings& settings, Logger& logger) {
  // Every chunk frees and allocates the same buffers again. Keep freed memory
  // in the heap rather than handing it back to the kernel each time: fresh
  // pages cost a fault and a clearing apiece.
  mallopt(M_TRIM_THRESHOLD, kKeepHeapBytes);
  mallopt(M_MMAP_THRESHOLD, kKeepHeapBytes);
  logger.line("Sonderlark live mode: raw Kinect mic array -> input gain -> beamforming -> mono s16le PCM");
  logger.line("live_pcm_output: " + settings.pcm_output_path);
  logger.line("live_duration_seconds: " + std::to_string(settings.duration_seconds));
  logger.line("live_chunk_frames: " + std::to_string(settings.chunk_frames));

  LiveState state;
  state.capture.wake_fd = catch_stop_signals();
  state.status_path = settings.status_path.empty() ? default_status_path() : settings.status_path;
  logger.line("live_event_json: " + state.status_path);
  state.stderr_path = capture_stderr_path(state.status_path);
  // The child's standard error goes beside the status file, whose folder a
  // new user does not have yet: it is made before the first start.
  make_parent_folder(state.stderr_path);
  state.capture.capture_command = build_capture_command(settings.device);
  state.capture.stderr_path = state.stderr_path;
  logger.line("live capture command: " + state.capture.capture_command);
  logger.line("live arecord stderr: " + state.stderr_path);

  if (!start_capture(state.capture, logger)) return kExitLiveStartFailed;
  state.pcm.path = settings.pcm_output_path;
  open_pcm_output(state.pcm, logger);
  const CaptureStop last_stop = run_chunks(state, settings, logger);
  return finish_run(state, settings, last_stop, logger);
}

}  // namespace sonderlark
