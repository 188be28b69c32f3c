#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "audio/wav.h"
#include "cli/options.h"
#include "dsp/diagnostics.h"
#include "dsp/direction.h"
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

// Status path: --event-output, else $XDG_STATE_HOME/sonderscope/..., else
// $HOME/.local/state/sonderscope/..., else build/sonderlark-live-event.json.
std::string choose_status_path(const Options& options);

// A chunk of interleaved S32_LE frames as a 4-channel 16000 Hz WavData.
WavData chunk_from_frames(const int32_t* interleaved, std::size_t frame_count);

// Live mode from start to end: returns 0, 30 (the capture child could not
// be started) or 32 (ended on a failed capture). Exceptions of the stages
// and of the status writer are left to the caller.
int run_live_mode(const Options& options, Logger& logger);

}  // namespace sonderlark
