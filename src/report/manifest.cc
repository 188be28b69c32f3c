#include "report/manifest.h"

#include <sstream>
#include <stdexcept>

#include "report/json.h"
#include "util/files.h"
#include "util/text.h"

namespace sonderlark {

bool detected_speech(const std::vector<double>& processed_rms) {
  for (double rms : processed_rms) {
    if (rms > kSpeechRmsThreshold) return true;
  }
  return false;
}

void write_event_json(const std::string& path, const Options& options, const WavData& input,
                      double duration, const ChannelDiagnostics& raw,
                      const ChannelDiagnostics& processed, const ChannelDiagnostics& beamformed,
                      const DirectionEstimate& direction, const BeamformResult& beam,
                      const std::vector<std::string>& warnings) {
  FileReplacement file = begin_replacement(path);
  if (file.fd < 0) throw std::runtime_error("failed to write event JSON: " + path);

  auto flag = [](bool value) { return value ? "true" : "false"; };
  std::string warning_array = "[";
  for (std::size_t i = 0; i < warnings.size(); ++i) {
    if (i > 0) warning_array += ", ";
    warning_array += json_string(warnings[i]);
  }
  warning_array += "]";
  const std::string angle = fixed(direction.angle_degrees, 2);

  std::ostringstream out;
  out << "{\n"
      << "  \"timestamp\": \"" << now_iso8601_utc() << "\",\n"
      << "  \"device\": " << json_string(options.device) << ",\n"
      << "  \"sample_rate\": " << input.sample_rate << ",\n"
      << "  \"channels\": " << input.channels << ",\n"
      << "  \"duration_seconds\": " << fixed(duration, 3) << ",\n"
      << "  \"raw_wav\": " << json_string(options.output_path) << ",\n"
      << "  \"beamformed_wav\": " << json_string(options.beamformed_path) << ",\n"
      << "  \"input_gain_db\": " << fixed(options.input_gain_db, 2) << ",\n"
      << "  \"channel_rms\": " << vector_json(raw.rms) << ",\n"
      << "  \"channel_peak\": " << vector_json(raw.peak) << ",\n"
      << "  \"channel_noise_floor\": " << vector_json(raw.noise_floor) << ",\n"
      << "  \"processed_channel_rms\": " << vector_json(processed.rms) << ",\n"
      << "  \"processed_channel_peak\": " << vector_json(processed.peak) << ",\n"
      << "  \"processed_channel_noise_floor\": " << vector_json(processed.noise_floor) << ",\n"
      << "  \"direction_angle\": " << angle << ",\n"
      << "  \"direction_angle_degrees\": " << angle << ",\n"
      << "  \"direction_confidence\": " << fixed(direction.confidence, 3) << ",\n"
      << "  \"direction_method\": " << json_string(direction.method) << ",\n"
      << "  \"direction_samples_source\": " << json_string(direction.samples_source) << ",\n"
      << "  \"direction_low_confidence\": " << flag(direction.low_confidence) << ",\n"
      << "  \"detected_speech\": " << flag(detected_speech(processed.rms)) << ",\n"
      << "  \"diagnostics\": {\n"
      << "    \"format\": \"PCM S" << input.bits_per_sample << "_LE\",\n"
      << "    \"beamformed_rms\": " << vector_json(beamformed.rms) << ",\n"
      << "    \"beamformed_peak\": " << vector_json(beamformed.peak) << ",\n"
      << "    \"direction_peak_correlation\": " << fixed(direction.peak_correlation, 5) << ",\n"
      << "    \"direction_second_correlation\": " << fixed(direction.second_correlation, 5) << ",\n"
      << "    \"direction_lag_consistency\": " << fixed(direction.lag_consistency, 5) << ",\n"
      << "    \"beamforming_lags\": " << int_vector_json(beam.lags) << ",\n"
      << "    \"beamforming_method\": " << json_string(beam.method) << "\n"
      << "  },\n"
      << "  \"warnings\": " << warning_array << "\n"
      << "}\n";
  replacement_write(file, out.str());
  if (!finish_replacement(file)) throw std::runtime_error("failed to write event JSON: " + path);
}

}  // namespace sonderlark
