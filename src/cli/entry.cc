#include "cli/entry.h"

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <iostream>
#include <string>
#include <vector>

#include "util/exit_status.h"
#include "cli/one_shot.h"
#include "cli/options.h"
#include "live/capture.h"
#include "live/live_mode.h"
#include "util/files.h"
#include "util/logger.h"
#include "util/process.h"
#include "util/text.h"

namespace sonderlark {
namespace {

// Capture (or input selection), then the analysis. May throw.
int run_one_shot(Options& options, Logger& logger) {
  std::vector<std::string> parts;  // of a capture arecord split
  if (!options.skip_capture) {
    const std::string command =
        one_shot_capture_command(options.device, options.duration_seconds, options.output_path);
    logger.line("capture command: " + command);
    std::cout.flush();  // our lines before arecord's own output
    const std::time_t started = std::time(nullptr);
    const int status = run_in_foreground(command);
    if (status != 0) {
      logger.line("error: arecord capture failed with status " + std::to_string(status));
      return kExitCaptureFailed;
    }
    // A capture over 2 GiB comes back in parts, analysed as one recording.
    parts = split_capture_parts(options.output_path, started);
    if (!parts.empty()) {
      logger.line("capture split by arecord into " + std::to_string(parts.size()) + " files: " + parts.front() +
                  " .. " + parts.back());
      options.output_path = parts.front();
    }
  } else if (!options.input_wav_path.empty()) {
    options.output_path = options.input_wav_path;
    logger.line("capture skipped; analyzing input WAV: " + options.input_wav_path);
  } else {
    logger.line("capture skipped; analyzing output WAV path: " + options.output_path);
  }
  if (parts.empty()) parts = {options.output_path};
  return run_one_shot_analysis(options, parts, logger);
}

}  // namespace

int run_sonderlark(int argc, char** argv) {
  // A closed standard output or a file-size limit fails a write; it never
  // kills the run halfway through its outputs.
  ignore_write_signals();
  Options options;
  if (const std::optional<int> status = parse_args(argc, argv, options)) return *status;

  Logger logger;
  open_log(logger, options.log_path);
  logger.line("Sonderlark v" SONDERLARK_VERSION " capture/live-global-mic/input-gain/direction/beamforming/event tool");
  logger.line("scope: Sonderscope only; no Halcyra integration; no system audio configuration changes");
  logger.line("device: " + options.device);

  try {
    if (options.live) {
      return run_live_mode({options.device, options.input_gain_db, options.live_duration_seconds,
                            options.live_chunk_frames, options.pcm_output_path, options.event_output_path},
                           logger);
    }
    return run_one_shot(options, logger);
  } catch (const std::exception& e) {
    logger.line(std::string("error: ") + e.what());
    return kExitError;
  }
}

}  // namespace sonderlark
