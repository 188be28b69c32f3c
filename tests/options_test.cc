#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>
#include <vector>

#include "cli/options.h"
#include "support.h"

namespace sonderlark {
namespace {

std::vector<std::string> split_tabs(const std::string& line) {
  std::vector<std::string> fields;
  std::size_t start = 0;
  for (std::size_t tab; (tab = line.find('\t', start)) != std::string::npos; start = tab + 1) {
    fields.push_back(line.substr(start, tab - start));
  }
  fields.push_back(line.substr(start));
  return fields;
}

std::string unescape_newlines(std::string text) {
  for (std::size_t at; (at = text.find("\\n")) != std::string::npos;) text.replace(at, 2, 1, '\n');
  return text;
}

std::string parsed(const Options& o) {
  std::ostringstream s;
  s << o.duration_seconds << ' ' << o.device << ' ' << o.output_path << ' ' << o.beamformed_path << ' '
    << o.event_path << ' ' << o.log_path << ' ' << o.input_wav_path << ' ' << o.input_gain_db << " skip="
    << o.skip_capture << " live=" << o.live << ' ' << o.live_duration_seconds << ' ' << o.live_chunk_frames << ' '
    << o.pcm_output_path << ' ' << o.event_output_path;
  return s.str();
}

// Every row of tests/golden/command_lines.txt: refusals through the real
// program (status, exact standard error, the usage, no log written), accepted
// command lines through the parser.
TEST(CommandLine, EveryRowOfTheTable) {
  std::string usage = test::read_file(test::source_path("tests/golden/usage.txt"));
  usage.replace(usage.find("PROGRAM"), 7, test::tool_path());
  std::istringstream table(test::read_file(test::source_path("tests/golden/command_lines.txt")));
  int rows = 0;
  for (std::string line; std::getline(table, line);) {
    if (line.empty() || line[0] == '#') continue;
    SCOPED_TRACE(line);
    std::vector<std::string> f = split_tabs(line);
    ++rows;
    if (f[0] == "accepted") {
      std::vector<std::string> args = {"sonderlark"};
      args.insert(args.end(), f.begin() + 2, f.end());
      std::vector<char*> argv;
      for (auto& a : args) argv.push_back(a.data());
      Options o;
      ASSERT_FALSE(parse_args(static_cast<int>(argv.size()), argv.data(), o).has_value());
      EXPECT_EQ(parsed(o), f[1]);
      continue;
    }
    test::TempDir tmp;
    std::vector<std::string> argv = {test::tool_path(), "--log", tmp.path("log.txt")};
    argv.insert(argv.end(), f.begin() + 3, f.end());
    const test::RunResult r = test::run(argv, {}, tmp.dir.string());
    EXPECT_EQ(r.exit_code, std::stoi(f[1]));
    EXPECT_EQ(r.err, unescape_newlines(f[2]));
    EXPECT_EQ(r.out, usage);
    EXPECT_FALSE(std::filesystem::exists(tmp.path("log.txt")));
  }
  EXPECT_EQ(rows, 27);
}

}  // namespace
}  // namespace sonderlark
