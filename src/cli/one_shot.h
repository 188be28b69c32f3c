#pragma once

#include <string>
#include <vector>

#include "cli/options.h"
#include "util/logger.h"

namespace sonderlark {

// The one-shot analysis of the recording in `wav_paths` (one file, or the
// parts of a split capture in order), from reading the WAV to "clean exit":
// format lines, diagnostics, gain, direction, beam, the beamformed WAV, the
// summary, the warnings and the event manifest. The recording is streamed:
// memory does not grow with its length. Returns 0; failures are thrown with
// their message for the caller to log.
int run_one_shot_analysis(const Options& options, const std::vector<std::string>& wav_paths, Logger& logger);

}  // namespace sonderlark
