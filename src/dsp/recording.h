#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "audio/wav.h"
#include "dsp/beam.h"
#include "dsp/diagnostics.h"
#include "dsp/direction.h"

namespace sonderlark {

// The frames of a recording, read a block at a time.
struct FrameSource {
  int32_t channels = 0;
  int32_t sample_rate = 0;
  uint64_t frames = 0;
  // Decodes frames [first, first + count) into out[c][0 .. count); may throw.
  std::function<void(uint64_t first, uint64_t count, double* const* out)> read;
};

// A WAV file (or the parts of a split capture) read as it is needed; the
// source must outlive the result.
FrameSource frames_of(const WavSource& source);
// A record in memory: `data.channels` channels of one length. `data` must
// outlive the result.
FrameSource frames_of(const WavData& data);

// What an analysis names its findings: the warning-line labels of each set
// of levels and the direction's samples_source. An empty label leaves
// those levels unmeasured.
struct AnalysisLabels {
  std::string raw = "raw channel";
  std::string processed = "processed channel";
  std::string source = "processed";
  std::string beamformed = "beamformed channel";
};

// What the chain makes of a recording.
struct RecordingAnalysis {
  ChannelDiagnostics raw;                  // levels before the gain
  std::vector<std::string> gain_warnings;  // the gain's clipping warning, if any
  ChannelDiagnostics processed;            // levels after the gain
  DirectionEstimate direction;
  BeamformResult beam;                     // lags and method; the samples went to the sink
  ChannelDiagnostics beamformed;           // levels of the beam
};

// Receives the beam in order, a block at a time.
using BeamSink = std::function<void(const double* samples, std::size_t count)>;

// Frames per block: three windows of four channels (768 KiB) stay within a
// core's cache; larger blocks ran slower here.
constexpr std::size_t kRecordingBlockFrames = 8192;

// The processing chain over a recording read `block_frames` frames at a
// time: levels of the raw channels, the input gain, levels of the processed
// channels, the direction estimate, the delay-and-sum beam (handed to
// `beam_out`) and its levels. Memory holds a few blocks of each channel and
// the per-channel, per-lag sums, whatever the length; every sum keeps the
// order of the whole-record stages, so every figure and beam sample is the
// bits those give. The recording is read three times (levels and channel
// sums, centred products, beam), plus up to two more when the beam falls
// back to aligning the channels one by one. A one-shot file and a live
// chunk both go through here; a chunk is a single block.
RecordingAnalysis analyse_recording(const FrameSource& source, double gain_db, const BeamSink& beam_out,
                                    const AnalysisLabels& labels = {},
                                    std::size_t block_frames = kRecordingBlockFrames);

}  // namespace sonderlark
