#pragma once

#include <string>
#include <vector>

#include "audio/wav.h"
#include "cli/options.h"
#include "dsp/beam.h"
#include "dsp/diagnostics.h"
#include "dsp/direction.h"

namespace sonderlark {

// Writes the one-shot event manifest (34 lines, fixed key order) to `path`,
// whole or not at all (through PATH.tmp, as write_mono_wav). Throws
// "failed to write event JSON: PATH" when it cannot be written.
void write_event_json(const std::string& path, const Options& options, const WavData& input,
                      double duration, const ChannelDiagnostics& raw,
                      const ChannelDiagnostics& processed, const ChannelDiagnostics& beamformed,
                      const DirectionEstimate& direction, const BeamformResult& beam,
                      const std::vector<std::string>& warnings);

}  // namespace sonderlark
