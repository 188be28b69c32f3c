#pragma once

#include <string>
#include <vector>

#include "audio/wav.h"
#include "dsp/beam.h"
#include "dsp/diagnostics.h"
#include "dsp/direction.h"

namespace sonderlark {

// What a one-shot run's manifest says.
struct Manifest {
  std::string device;
  std::string raw_wav;
  std::string beamformed_wav;
  double input_gain_db = 0.0;
  WavData format;  // the recording's header fields
  double duration = 0.0;
  ChannelDiagnostics raw;
  ChannelDiagnostics processed;
  ChannelDiagnostics beamformed;
  DirectionEstimate direction;
  BeamformResult beam;
  std::vector<std::string> warnings;
};

// Writes the one-shot event manifest (34 lines, fixed key order) to `path`,
// whole or not at all (through PATH.tmp, as write_mono_wav). Throws
// "failed to write event JSON: PATH" when it cannot be written.
void write_event_json(const std::string& path, const Manifest& manifest);

}  // namespace sonderlark
