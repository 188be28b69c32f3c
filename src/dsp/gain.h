#pragma once

#include <string>
#include <vector>

#include "audio/wav.h"

namespace sonderlark {

// A copy of `raw` scaled by 10^(gain_db / 20) and limited to -1.0 .. +1.0.
// When any sample was limited, appends one warning naming the gain and the
// clipped count of each affected channel; otherwise `warnings` is untouched.
// `raw` is never modified. A record without channels is returned as is.
WavData apply_input_gain(const WavData& raw, double gain_db, std::vector<std::string>& warnings);

// The same, scaling a record the caller no longer needs in place of a copy
// (a long recording is then held once).
WavData apply_input_gain(WavData&& raw, double gain_db, std::vector<std::string>& warnings);

}  // namespace sonderlark
