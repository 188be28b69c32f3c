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

// What a one-shot run makes of a recording.
struct RecordingAnalysis {
  ChannelDiagnostics raw;                  // "raw channel" lines
  std::vector<std::string> gain_warnings;  // the gain's clipping warning, if any
  ChannelDiagnostics processed;            // "processed channel" lines
  DirectionEstimate direction;             // samples_source "processed"
  BeamformResult beam;                     // lags and method; the samples went to the sink
  ChannelDiagnostics beamformed;           // "beamformed channel" lines
};

// Receives the beam in order, a block at a time.
using BeamSink = std::function<void(const double* samples, std::size_t count)>;

// Frames per block of a streamed analysis: three windows of four channels
// (768 KiB) stay within a core's cache; larger blocks ran slower here.
constexpr std::size_t kRecordingBlockFrames = 8192;

// The one-shot chain (levels of the raw channels, input gain, processed
// levels, direction estimate, delay-and-sum beam, beam levels) over a
// recording read `block_frames` frames at a time: memory holds a block of
// each channel and the per-channel, per-lag sums, whatever the length. Every
// sum keeps the order of the whole-record stages, so every number and every
// beam sample is the bits those give on the whole recording. The recording
// is read three times (the levels and channel sums, the centred products,
// the beam), once more per 16 channels when the beam falls back to aligning
// channels one by one.
RecordingAnalysis analyse_recording(const WavSource& source, double gain_db, const BeamSink& beam_out,
                                    std::size_t block_frames = kRecordingBlockFrames);

}  // namespace sonderlark
