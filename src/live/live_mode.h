#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "audio/wav.h"
#include "dsp/diagnostics.h"
#include "dsp/direction.h"
#include "dsp/recording.h"
#include "live/capture.h"
#include "live/pcm_output.h"
#include "util/logger.h"

namespace sonderlark {

// Everything one live run keeps between chunks.
struct LiveState {
  std::string status_path;  // live status JSON
  std::string stderr_path;  // status_path + ".arecord.stderr": the child's standard error
  CaptureChild capture;
  PcmOutput pcm;
  std::vector<int32_t> frame_buffer;  // live_chunk_frames x 4 interleaved samples
  int64_t chunks_processed = 0;       // whole run, across restarts
  int64_t low_confidence_chunks = 0;
  bool speech_seen = false;           // any chunk's processed rms above the speech threshold
  int64_t chunks_since_start = 0;     // since the child was last started
  DirectionEstimate last_direction;
  ChannelDiagnostics last_diagnostics;
};

constexpr int32_t kLiveSampleRate = 16000;
constexpr int32_t kLiveChannels = 4;

// Where the beam goes unless told otherwise: a file or a FIFO.
std::string default_pcm_output_path();

// Where the status record goes unless told otherwise:
// $XDG_STATE_HOME/sonderscope/..., else $HOME/.local/state/sonderscope/...,
// else build/sonderlark-live-event.json.
std::string default_status_path();

// Where the capture child's standard error goes: beside the status file.
std::string capture_stderr_path(const std::string& status_path);

// What one live run is told.
struct LiveSettings {
  std::string device;
  double input_gain_db = 0.0;
  int32_t duration_seconds = 0;  // 0 runs until stopped
  int32_t chunk_frames = 1024;
  std::string pcm_output_path = default_pcm_output_path();
  std::string status_path;  // empty: default_status_path()
};

// What the chain makes of one chunk of interleaved S32_LE frames (4
// channels, 16000 Hz): one block, on this thread, the levels labelled
// "live processed channel" and the estimate "processed-live".
struct ChunkAnalysis {
  RecordingAnalysis chain;  // no raw or beam levels
  std::vector<double> beam;
};
ChunkAnalysis analyse_chunk(const int32_t* interleaved, std::size_t frame_count, double gain_db);

// Live mode from start to end: returns 0, 30 (the capture child could not
// be started) or 32 (ended on a failed capture). Exceptions of the stages
// and of the status writer are left to the caller.
int run_live_mode(const LiveSettings& settings, Logger& logger);

}  // namespace sonderlark
