#pragma once

#include "cli/options.h"
#include "util/logger.h"

namespace sonderlark {

// The one-shot analysis of options.output_path, from reading the WAV to
// "clean exit": format lines, diagnostics, gain, direction, beam, the
// beamformed WAV, the summary, the warnings and the event manifest.
// Returns 0; failures are thrown with their message for the caller to log.
int run_one_shot_analysis(const Options& options, Logger& logger);

}  // namespace sonderlark
