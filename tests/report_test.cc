// The live status record: its members and order (the one-shot manifest is
// held by the golden runs), and how a record replaces the one before.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>

#include "report/live_status.h"
#include "support.h"

namespace sonderlark {
namespace {

namespace fs = std::filesystem;

void write_status(const std::string& path, const std::string& status, int64_t chunks) {
  write_live_status(path, {.live_processing = true,
                           .status = status,
                           .device = "hw:1,0",
                           .arecord_command = "arecord -D 'hw:1,0' -f S32_LE -r 16000 -c 4 -t raw",
                           .arecord_exit_code = 1,
                           .arecord_stderr = "line\n\"quoted\"",
                           .input_gain_db = -3.0,
                           .chunks_processed = chunks,
                           .pcm_output = "/tmp/sonderlark-beamformed-mic.pcm",
                           .direction_angle_degrees = -12.5,
                           .direction_confidence = 0.4,
                           .direction_method = "processed multi-pair centered cross-correlation",
                           .direction_samples_source = "processed",
                           .detected_speech = true,
                           .processed_channel_rms = {0.5, 0.25}});
}

TEST(WriteLiveEventJson, TwentyMembersInOrder) {
  test::TempDir tmp;
  const std::string path = tmp.path("state/deeper/status.json");  // directories made on the first write
  write_status(path, "restarting", 3000000000LL);                 // past 32 bits: 33 hours of small chunks
  const std::regex stamp(R"("timestamp": "\d{4}-\d{2}-\d{2}T\d{2}:\d{2}:\d{2}Z")");
  std::string text = test::read_file(path);
  EXPECT_TRUE(std::regex_search(text, stamp)) << text;
  text = std::regex_replace(text, stamp, "\"timestamp\": \"TIMESTAMP\"");
  test::expect_golden("live_status.json", text);
  EXPECT_FALSE(fs::exists(path + ".tmp"));
}

TEST(WriteLiveEventJson, EachRecordReplacesTheLastWholeOrNotAtAll) {
  test::TempDir tmp;
  const std::string path = tmp.path("status.json");
  write_status(path, "running", 1);
  std::ifstream reader(path);  // a reader holding the old record keeps reading it whole
  write_status(path, "running", 2);
  write_status(path, "stopped", 3);
  EXPECT_NE(test::read_file(path).find("\"chunks_processed\": 3,"), std::string::npos);
  const std::string held((std::istreambuf_iterator<char>(reader)), std::istreambuf_iterator<char>());
  EXPECT_NE(held.find("\"chunks_processed\": 1,"), std::string::npos);
  EXPECT_EQ(std::distance(fs::directory_iterator(tmp.dir), fs::directory_iterator{}), 1);  // no temporary left

  // A temporary file that cannot be written keeps the previous record.
  const std::string before = test::read_file(path);
  fs::create_symlink("/dev/full", path + ".tmp");
  write_status(path, "running", 4);
  EXPECT_EQ(test::read_file(path), before);
  EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(path)));

  // A directory in the file's place is never moved: the temporary stays.
  fs::create_directory(tmp.path("folder.json"));
  write_status(tmp.path("folder.json"), "running", 5);
  EXPECT_TRUE(fs::is_directory(tmp.path("folder.json")));
  EXPECT_NE(test::read_file(tmp.path("folder.json.tmp")).find("\"chunks_processed\": 5,"), std::string::npos);
  EXPECT_THROW(write_status(path + "/below/a/file.json", "running", 6), fs::filesystem_error);
}

}  // namespace
}  // namespace sonderlark
