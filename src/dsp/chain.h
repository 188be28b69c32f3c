#pragma once

#include <string>
#include <vector>

#include "audio/wav.h"
#include "dsp/beam.h"
#include "dsp/diagnostics.h"
#include "dsp/direction.h"

namespace sonderlark {

// What the processing chain makes of one raw record.
struct ChainResult {
  std::vector<std::string> gain_warnings;  // the gain's clipping warning, if any
  ChannelDiagnostics processed;            // levels of the processed channels
  DirectionEstimate direction;
  BeamformResult beam;
};

// The processing chain, in this order: the input gain, the processed
// channels' levels (warning lines labelled `levels_label`), the direction
// estimate (`samples_source` set to `source_label`) and the delay-and-sum
// beam. The record is taken over: the gain scales it in place and the beam
// is formed in channel 0's storage; the estimate's channel 0 / channel 3
// search serves the fallback beam too.
ChainResult run_chain(WavData&& raw, double gain_db, const std::string& levels_label,
                      const std::string& source_label);

}  // namespace sonderlark
