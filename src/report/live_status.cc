#include "report/live_status.h"

#include <cstdio>
#include <filesystem>
#include <fstream>

#include "report/json.h"
#include "util/text.h"

namespace sonderlark {

void write_live_event_json(const std::string& path, const Options& options,
                           const DirectionEstimate& direction, const ChannelDiagnostics& diagnostics,
                           bool detected_speech, int chunks_processed, bool pcm_output_connected,
                           bool live_processing, const std::string& status, const std::string& error,
                           const std::string& arecord_command, int arecord_exit_code,
                           const std::string& arecord_stderr) {
  if (path.empty()) return;
  const std::size_t slash = path.rfind('/');
  if (slash != std::string::npos && slash > 0) {
    std::filesystem::create_directories(path.substr(0, slash));
  }

  const std::string temp_path = path + ".tmp";
  std::ofstream out(temp_path, std::ios::out | std::ios::trunc);
  if (!out) return;

  auto flag = [](bool value) { return value ? "true" : "false"; };
  out << "{\n"
      << "  \"timestamp\": \"" << now_iso8601_utc() << "\",\n"
      << "  \"live_processing\": " << flag(live_processing) << ",\n"
      << "  \"source\": \"sonder_lark --live\",\n"
      << "  \"status\": " << json_string(status) << ",\n"
      << "  \"error\": " << json_string(error) << ",\n"
      << "  \"device\": " << json_string(options.device) << ",\n"
      << "  \"arecord_command\": " << json_string(arecord_command) << ",\n"
      << "  \"arecord_exit_code\": " << arecord_exit_code << ",\n"
      << "  \"arecord_stderr\": " << json_string(arecord_stderr) << ",\n"
      << "  \"input_gain_db\": " << fixed(options.input_gain_db, 2) << ",\n"
      << "  \"chunks_processed\": " << chunks_processed << ",\n"
      << "  \"pcm_output\": " << json_string(options.pcm_output_path) << ",\n"
      << "  \"pcm_output_connected\": " << flag(pcm_output_connected) << ",\n"
      << "  \"direction_angle_degrees\": " << fixed(direction.angle_degrees, 2) << ",\n"
      << "  \"direction_confidence\": " << fixed(direction.confidence, 3) << ",\n"
      << "  \"direction_low_confidence\": " << flag(direction.low_confidence) << ",\n"
      << "  \"direction_method\": " << json_string(direction.method) << ",\n"
      << "  \"direction_samples_source\": " << json_string(direction.samples_source) << ",\n"
      << "  \"detected_speech\": " << flag(detected_speech) << ",\n"
      << "  \"processed_channel_rms\": " << vector_json(diagnostics.rms) << "\n"
      << "}\n";
  out.close();
  // A record that did not reach the disk whole must not replace the last good one.
  if (out.fail()) return;
  std::rename(temp_path.c_str(), path.c_str());
}

}  // namespace sonderlark
