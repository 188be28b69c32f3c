#include "cli/one_shot.h"

#include <string>
#include <vector>

#include "audio/wav.h"
#include "dsp/diagnostics.h"
#include "dsp/recording.h"
#include "report/json.h"
#include "report/manifest.h"
#include "util/text.h"

namespace sonderlark {
namespace {

constexpr int32_t kExpectedSampleRate = 16000;
constexpr int32_t kExpectedChannels = 4;

void append(std::vector<std::string>& warnings, const std::vector<std::string>& more) {
  warnings.insert(warnings.end(), more.begin(), more.end());
}

}  // namespace

namespace {

// The warnings of a run, in the manifest's order.
std::vector<std::string> run_warnings(const WavData& format, const RecordingAnalysis& analysis) {
  std::vector<std::string> warnings;
  if (format.sample_rate != kExpectedSampleRate) warnings.push_back("sample rate differs from expected 16000 Hz");
  if (format.channels != kExpectedChannels) {
    warnings.push_back("channel count differs from expected Kinect v2 4-channel capture");
  }
  append(warnings, analysis.raw.warnings);
  append(warnings, analysis.gain_warnings);
  append(warnings, analysis.processed.warnings);
  if (analysis.direction.low_confidence) {
    warnings.push_back("direction confidence is low; angle should be treated as a weak hint only");
  }
  append(warnings, analysis.beamformed.warnings);
  return warnings;
}

void log_findings(Logger& logger, const RecordingAnalysis& analysis) {
  log_diagnostics(logger, "raw 4-channel levels (unmodified capture)", analysis.raw);
  log_diagnostics(logger, "processed 4-channel levels (after input gain)", analysis.processed);
  log_diagnostics(logger, "beamformed mono levels (from processed audio)", analysis.beamformed);
  const DirectionEstimate& direction = analysis.direction;
  logger.line("direction_angle_degrees: " + fixed(direction.angle_degrees, 6));
  logger.line("direction_confidence: " + fixed(direction.confidence, 6));
  logger.line("direction_method: " + direction.method);
  logger.line("direction_samples_source: " + direction.samples_source);
  logger.line(std::string("direction_low_confidence: ") + (direction.low_confidence ? "true" : "false"));
  logger.line("direction_lag_samples_ch0_to_ch3: " + std::to_string(direction.lag_samples_ch0_to_ch3));
  logger.line("direction_peak_correlation: " + fixed(direction.peak_correlation, 6));
  logger.line("direction_lag_consistency: " + fixed(direction.lag_consistency, 6));
  logger.line("beamforming_method: " + analysis.beam.method);
  logger.line("beamforming_lags: " + int_vector_json(analysis.beam.lags));
}

}  // namespace

int run_one_shot_analysis(const Options& options, const std::vector<std::string>& wav_paths, Logger& logger) {
  const WavSource input = open_wav_source(wav_paths);
  const WavData& format = input.format;  // the header fields, for the beam and the manifest
  double duration = 0.0;
  if (input.frames > 0 && format.sample_rate > 0) {
    duration = static_cast<double>(input.frames) / format.sample_rate;
  }
  logger.line("sample_rate: " + std::to_string(format.sample_rate));
  logger.line("channels: " + std::to_string(format.channels));
  logger.line("duration_seconds: " + fixed(duration, 6));
  logger.line("input_gain_db: " + fixed(options.input_gain_db, 6));
  logger.line("raw audio is preserved unchanged; gain is applied only to processed analysis/beamforming samples");

  // The beam goes to its file as it is formed; the file replaces an earlier
  // one only once whole.
  MonoWavWriter beam_file = begin_mono_wav(options.beamformed_path, format.sample_rate, input.frames);
  const RecordingAnalysis analysis =
      analyse_recording(frames_of(input), options.input_gain_db, [&beam_file](const double* samples, std::size_t count) {
        write_mono_samples(beam_file, samples, count);
      });
  finish_mono_wav(beam_file);

  const std::vector<std::string> warnings = run_warnings(format, analysis);
  log_findings(logger, analysis);
  for (const std::string& warning : warnings) logger.line("warning: " + warning);
  write_event_json(options.event_path, {options.device, options.output_path, options.beamformed_path,
                                        options.input_gain_db, format, duration, analysis.raw, analysis.processed,
                                        analysis.beamformed, analysis.direction, analysis.beam, warnings});

  logger.line("raw_wav: " + options.output_path);
  logger.line("beamformed_wav: " + options.beamformed_path);
  logger.line("event_json: " + options.event_path);
  logger.line("clean exit");
  return 0;
}

}  // namespace sonderlark
