#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "audio/wav.h"

namespace sonderlark {

// `record` scaled by 10^(gain_db / 20) and limited to -1.0 .. +1.0 (pass
// a copy to keep the raw samples). When any sample was limited, appends one
// warning naming the gain and the clipped count of each affected channel;
// otherwise `warnings` is untouched.
WavData apply_input_gain(WavData record, double gain_db, std::vector<std::string>& warnings);

// The pieces of the gain, for a recording processed a block at a time.
// The factor of `gain_db`: 10^(gain_db / 20).
double gain_factor(double gain_db);
// s[i] *= gain in place, limited to full scale; how many samples were limited.
int64_t scale_and_limit(double* s, std::size_t n, double gain);
// The clipping warning from the limited count of each channel, if any.
void add_clipping_warning(double gain_db, const std::vector<int64_t>& clipped, std::vector<std::string>& warnings);

}  // namespace sonderlark
