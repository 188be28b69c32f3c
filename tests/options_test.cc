#include <gtest/gtest.h>

#include <sstream>
#include <vector>

#include "cli/options.h"
#include "support.h"

namespace sonderlark {
namespace {

std::vector<std::string> split_tabs(const std::string& line) {
  std::vector<std::string> fields;
  std::istringstream in(line);
  for (std::string field; std::getline(in, field, '\t');) fields.push_back(field);
  return fields;
}

std::string parsed(const Options& o) {
  std::ostringstream s;
  s << o.duration_seconds << ' ' << o.device << ' ' << o.output_path << ' ' << o.beamformed_path << ' '
    << o.event_path << ' ' << o.log_path << ' ' << o.input_wav_path << ' ' << o.input_gain_db << " skip="
    << o.skip_capture << " live=" << o.live << ' ' << o.live_duration_seconds << ' ' << o.live_chunk_frames << ' '
    << o.pcm_output_path << ' ' << o.event_output_path;
  return s.str();
}

// The accepted rows of tests/golden/command_lines.txt, through the parser
// (the refused rows run the program: tests/scenarios/one_shot.toml).
TEST(CommandLine, EveryAcceptedRowOfTheTable) {
  std::istringstream table(test::read_file(test::source_path("tests/golden/command_lines.txt")));
  int rows = 0;
  for (std::string line; std::getline(table, line);) {
    std::vector<std::string> f = split_tabs(line);
    if (f[0] != "accepted") continue;
    SCOPED_TRACE(line);
    ++rows;
    std::vector<std::string> args = {"sonderlark"};
    args.insert(args.end(), f.begin() + 2, f.end());
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    Options o;
    ASSERT_FALSE(parse_args(static_cast<int>(argv.size()), argv.data(), o).has_value());
    EXPECT_EQ(parsed(o), f[1]);
  }
  EXPECT_EQ(rows, 4);
}

}  // namespace
}  // namespace sonderlark
