#include "dsp/chain.h"

#include <optional>

#include "dsp/gain.h"

namespace sonderlark {

ChainResult run_chain(WavData&& raw, double gain_db, const std::string& levels_label,
                      const std::string& source_label) {
  ChainResult result;
  WavData processed = apply_input_gain(std::move(raw), gain_db, result.gain_warnings);
  result.processed = diagnose_channels(processed, levels_label);
  std::optional<int32_t> end_to_end_lag;
  result.direction = estimate_direction(processed, source_label, end_to_end_lag);
  result.beam = beamform_delay_and_sum(std::move(processed), result.direction, end_to_end_lag);
  return result;
}

}  // namespace sonderlark
