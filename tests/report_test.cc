#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>

#include "report/live_status.h"
#include "report/manifest.h"
#include "support.h"

namespace sonderlark {
namespace {

// Masks the timestamp after checking its pattern.
std::string masked(std::string text) {
  const std::regex stamp(R"("timestamp": "\d{4}-\d{2}-\d{2}T\d{2}:\d{2}:\d{2}Z")");
  EXPECT_TRUE(std::regex_search(text, stamp)) << text;
  return std::regex_replace(text, stamp, "\"timestamp\": \"TIMESTAMP\"");
}

TEST(WriteEventJson, EscapingSpeechFlagAndWarnings) {
  test::TempDir tmp;
  Options options;
  options.device = "hw:\"odd\"\\dev";
  options.output_path = "in\tput.wav";
  options.input_gain_db = -3.0;
  WavData input;
  input.sample_rate = 48000;
  input.channels = 2;
  input.bits_per_sample = 16;
  ChannelDiagnostics raw{{0.1, 0.2}, {0.5, 0.6}, {0.01, 0.02}, {}};
  ChannelDiagnostics processed{{0.003, 0.0031}, {0.4, 0.5}, {0.001, 0.002}, {}};
  ChannelDiagnostics beam{{0.05}, {0.3}, {0.0}, {}};
  DirectionEstimate direction;
  direction.angle_degrees = -0.001;
  direction.confidence = 0.35;
  direction.low_confidence = false;
  direction.peak_correlation = 0.123456;
  BeamformResult beam_result{{}, {0, -3}, "fallback channel-alignment delay-and-sum from processed samples"};
  const std::string path = tmp.path("event.json");
  write_event_json(path, options, input, 1.5, raw, processed, beam, direction, beam_result, {"first", "say \"hi\""});
  EXPECT_EQ(masked(test::read_file(path)),
            "{\n"
            "  \"timestamp\": \"TIMESTAMP\",\n"
            "  \"device\": \"hw:\\\"odd\\\"\\\\dev\",\n"
            "  \"sample_rate\": 48000,\n"
            "  \"channels\": 2,\n"
            "  \"duration_seconds\": 1.500,\n"
            "  \"raw_wav\": \"in\\tput.wav\",\n"
            "  \"beamformed_wav\": \"build/sonderlark_beamformed.wav\",\n"
            "  \"input_gain_db\": -3.00,\n"
            "  \"channel_rms\": [0.10000000, 0.20000000],\n"
            "  \"channel_peak\": [0.50000000, 0.60000000],\n"
            "  \"channel_noise_floor\": [0.01000000, 0.02000000],\n"
            "  \"processed_channel_rms\": [0.00300000, 0.00310000],\n"
            "  \"processed_channel_peak\": [0.40000000, 0.50000000],\n"
            "  \"processed_channel_noise_floor\": [0.00100000, 0.00200000],\n"
            "  \"direction_angle\": -0.00,\n"
            "  \"direction_angle_degrees\": -0.00,\n"
            "  \"direction_confidence\": 0.350,\n"
            "  \"direction_method\": \"processed multi-pair centered cross-correlation\",\n"
            "  \"direction_samples_source\": \"processed\",\n"
            "  \"direction_low_confidence\": false,\n"
            "  \"detected_speech\": true,\n"
            "  \"diagnostics\": {\n"
            "    \"format\": \"PCM S16_LE\",\n"
            "    \"beamformed_rms\": [0.05000000],\n"
            "    \"beamformed_peak\": [0.30000000],\n"
            "    \"direction_peak_correlation\": 0.12346,\n"
            "    \"direction_second_correlation\": 0.00000,\n"
            "    \"direction_lag_consistency\": 0.00000,\n"
            "    \"beamforming_lags\": [0, -3],\n"
            "    \"beamforming_method\": \"fallback channel-alignment delay-and-sum from processed samples\"\n"
            "  },\n"
            "  \"warnings\": [\"first\", \"say \\\"hi\\\"\"]\n"
            "}\n");
  EXPECT_FALSE(detected_speech({0.003, 0.003}));
  EXPECT_FALSE(detected_speech({}));
  EXPECT_THROW(write_event_json(tmp.path("missing/e.json"), options, input, 0, raw, processed, beam, direction,
                                beam_result, {}),
               std::runtime_error);
}

void write_status(const std::string& path, const std::string& status, int chunks) {
  Options options;
  options.input_gain_db = -3.0;
  ChannelDiagnostics levels{{0.5, 0.25}, {}, {}, {}};
  DirectionEstimate direction;
  direction.angle_degrees = -12.5;
  direction.confidence = 0.4;
  write_live_event_json(path, options, direction, levels, true, chunks, false, true, status, "",
                        "arecord -D 'hw:1,0' -f S32_LE -r 16000 -c 4 -t raw", 1, "line\n\"quoted\"");
}

TEST(WriteLiveEventJson, TwentyMembersInOrder) {
  test::TempDir tmp;
  const std::string path = tmp.path("state/deeper/status.json");  // directories made on the first write
  write_status(path, "restarting", 1);
  EXPECT_EQ(masked(test::read_file(path)),
            "{\n"
            "  \"timestamp\": \"TIMESTAMP\",\n"
            "  \"live_processing\": true,\n"
            "  \"source\": \"sonder_lark --live\",\n"
            "  \"status\": \"restarting\",\n"
            "  \"error\": \"\",\n"
            "  \"device\": \"hw:1,0\",\n"
            "  \"arecord_command\": \"arecord -D 'hw:1,0' -f S32_LE -r 16000 -c 4 -t raw\",\n"
            "  \"arecord_exit_code\": 1,\n"
            "  \"arecord_stderr\": \"line\\n\\\"quoted\\\"\",\n"
            "  \"input_gain_db\": -3.00,\n"
            "  \"chunks_processed\": 1,\n"
            "  \"pcm_output\": \"/tmp/sonderlark-beamformed-mic.pcm\",\n"
            "  \"pcm_output_connected\": false,\n"
            "  \"direction_angle_degrees\": -12.50,\n"
            "  \"direction_confidence\": 0.400,\n"
            "  \"direction_low_confidence\": true,\n"
            "  \"direction_method\": \"processed multi-pair centered cross-correlation\",\n"
            "  \"direction_samples_source\": \"processed\",\n"
            "  \"detected_speech\": true,\n"
            "  \"processed_channel_rms\": [0.50000000, 0.25000000]\n"
            "}\n");
  EXPECT_FALSE(std::filesystem::exists(path + ".tmp"));
}

TEST(WriteLiveEventJson, LaterRecordsReplaceTheFileAndLeaveNoTemporary) {
  test::TempDir tmp;
  const std::string path = tmp.path("status.json");
  write_status(path, "running", 1);
  // A reader holding the old record keeps reading it whole.
  std::ifstream reader(path);
  write_status(path, "running", 2);
  write_status(path, "stopped", 3);
  EXPECT_NE(test::read_file(path).find("\"chunks_processed\": 3,"), std::string::npos);
  EXPECT_FALSE(std::filesystem::exists(path + ".tmp"));
  const std::string held((std::istreambuf_iterator<char>(reader)), std::istreambuf_iterator<char>());
  EXPECT_NE(held.find("\"chunks_processed\": 1,"), std::string::npos);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(tmp.path(".")), std::filesystem::directory_iterator{}),
            1);  // nothing but the status file

  // A directory in the file's place is never moved: the rename fails quietly
  // and the temporary file stays behind.
  const std::string folder = tmp.path("folder.json");
  std::filesystem::create_directory(folder);
  write_status(folder, "running", 4);
  EXPECT_TRUE(std::filesystem::is_directory(folder));
  EXPECT_NE(test::read_file(folder + ".tmp").find("\"chunks_processed\": 4,"), std::string::npos);
}

TEST(WriteLiveEventJson, FailedTemporaryWriteKeepsThePreviousRecord) {
  test::TempDir tmp;
  const std::string path = tmp.path("status.json");
  write_status(path, "running", 1);
  const std::string before = test::read_file(path);
  std::filesystem::create_symlink("/dev/full", path + ".tmp");  // every write fails
  write_status(path, "running", 2);
  EXPECT_EQ(test::read_file(path), before);
  EXPECT_TRUE(std::filesystem::is_regular_file(std::filesystem::symlink_status(path)));

  write_live_event_json("", Options{}, {}, {}, false, 0, false, false, "", "", "", 0, "");  // no-op
  EXPECT_THROW(write_status(path + "/below/a/file.json", "running", 3), std::filesystem::filesystem_error);
}

}  // namespace
}  // namespace sonderlark
