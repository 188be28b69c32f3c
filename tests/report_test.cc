// How a live status record replaces the one before (its members and their
// order are held by the live goldens of tests/scenarios/live.toml).
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "report/live_status.h"
#include "support.h"

namespace sonderlark {
namespace {

namespace fs = std::filesystem;

void write_status(const std::string& path, const std::string& status, int64_t chunks) {
  write_live_status(path, {.status = status, .chunks_processed = chunks});
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
