#include "report/manifest.h"

#include <stdexcept>

#include "report/json.h"
#include "util/files.h"
#include "util/text.h"

namespace sonderlark {

void write_event_json(const std::string& path, const Manifest& manifest) {
  const WavData& input = manifest.format;
  const ChannelDiagnostics& raw = manifest.raw;
  const ChannelDiagnostics& processed = manifest.processed;
  const ChannelDiagnostics& beamformed = manifest.beamformed;
  const DirectionEstimate& direction = manifest.direction;
  const BeamformResult& beam = manifest.beam;
  const std::vector<std::string>& warnings = manifest.warnings;
  FileReplacement file = begin_replacement(path);
  if (!file.fd.valid()) throw std::runtime_error("failed to write event JSON: " + path);

  std::string warning_array = "[";
  for (std::size_t i = 0; i < warnings.size(); ++i) {
    if (i > 0) warning_array += ", ";
    warning_array += json_string(warnings[i]);
  }
  warning_array += "]";
  const std::string angle = fixed(direction.angle_degrees, 2);

  JsonWriter out;
  json_begin(out);
  json_string_member(out, "timestamp", now_iso8601_utc());
  json_string_member(out, "device", manifest.device);
  json_member(out, "sample_rate", std::to_string(input.sample_rate));
  json_member(out, "channels", std::to_string(input.channels));
  json_member(out, "duration_seconds", fixed(manifest.duration, 3));
  json_string_member(out, "raw_wav", manifest.raw_wav);
  json_string_member(out, "beamformed_wav", manifest.beamformed_wav);
  json_member(out, "input_gain_db", fixed(manifest.input_gain_db, 2));
  json_member(out, "channel_rms", vector_json(raw.rms));
  json_member(out, "channel_peak", vector_json(raw.peak));
  json_member(out, "channel_noise_floor", vector_json(raw.noise_floor));
  json_member(out, "processed_channel_rms", vector_json(processed.rms));
  json_member(out, "processed_channel_peak", vector_json(processed.peak));
  json_member(out, "processed_channel_noise_floor", vector_json(processed.noise_floor));
  json_member(out, "direction_angle", angle);
  json_member(out, "direction_angle_degrees", angle);
  json_member(out, "direction_confidence", fixed(direction.confidence, 3));
  json_string_member(out, "direction_method", direction.method);
  json_string_member(out, "direction_samples_source", direction.samples_source);
  json_bool_member(out, "direction_low_confidence", direction.low_confidence);
  json_bool_member(out, "detected_speech", detected_speech(processed.rms));
  json_begin_object_member(out, "diagnostics");
  json_string_member(out, "format", "PCM S" + std::to_string(input.bits_per_sample) + "_LE");
  json_member(out, "beamformed_rms", vector_json(beamformed.rms));
  json_member(out, "beamformed_peak", vector_json(beamformed.peak));
  json_member(out, "direction_peak_correlation", fixed(direction.peak_correlation, 5));
  json_member(out, "direction_second_correlation", fixed(direction.second_correlation, 5));
  json_member(out, "direction_lag_consistency", fixed(direction.lag_consistency, 5));
  json_member(out, "beamforming_lags", int_vector_json(beam.lags));
  json_string_member(out, "beamforming_method", beam.method);
  json_end(out);
  json_member(out, "warnings", warning_array);
  json_end(out);
  replacement_write(file, out.text);
  if (!finish_replacement(file)) throw std::runtime_error("failed to write event JSON: " + path);
}

}  // namespace sonderlark
