#include <gtest/gtest.h>

#include <filesystem>
#include <vector>

#include "cli/options.h"
#include "support.h"

namespace sonderlark {
namespace {

std::string usage_for(const std::string& program) {
  std::string text = test::read_file(test::source_path("tests/golden/usage.txt"));
  text.replace(text.find("PROGRAM"), 7, program);
  return text;
}

// Parses through the library; argv[0] is "sonderlark".
bool parse(std::vector<std::string> args, Options& options) {
  args.insert(args.begin(), "sonderlark");
  std::vector<char*> argv;
  for (auto& a : args) argv.push_back(a.data());
  return parse_args(static_cast<int>(argv.size()), argv.data(), options);
}

TEST(ParseArgs, DefaultsWithoutArguments) {
  Options o;
  ASSERT_TRUE(parse({}, o));
  EXPECT_EQ(o.duration_seconds, 5);
  EXPECT_EQ(o.device, "hw:1,0");
  EXPECT_EQ(o.output_path, "build/sonderlark_raw.wav");
  EXPECT_EQ(o.beamformed_path, "build/sonderlark_beamformed.wav");
  EXPECT_EQ(o.event_path, "build/sonderlark_event.json");
  EXPECT_EQ(o.log_path, "build/sonderlark.log");
  EXPECT_EQ(o.input_wav_path, "");
  EXPECT_EQ(o.input_gain_db, 0.0);
  EXPECT_FALSE(o.skip_capture);
  EXPECT_FALSE(o.live);
  EXPECT_EQ(o.live_duration_seconds, 0);
  EXPECT_EQ(o.live_chunk_frames, 1024);
  EXPECT_EQ(o.pcm_output_path, "/tmp/sonderlark-beamformed-mic.pcm");
  EXPECT_EQ(o.event_output_path, "");
}

TEST(ParseArgs, AcceptedValues) {
  Options o;
  ASSERT_TRUE(parse({"--duration", "5s", "--live-duration", "0", "--live-chunk-frames", "128",
                     "--input-gain-db", "-60", "--output", "--live", "--device", "-x"},
                    o));
  EXPECT_EQ(o.duration_seconds, 5);
  EXPECT_EQ(o.live_duration_seconds, 0);
  EXPECT_EQ(o.live_chunk_frames, 128);
  EXPECT_EQ(o.input_gain_db, -60.0);
  EXPECT_EQ(o.output_path, "--live");
  EXPECT_FALSE(o.live);
  EXPECT_EQ(o.device, "-x");

  Options p;
  ASSERT_TRUE(parse({"--duration", " 2.9", "--live-chunk-frames", "16000", "--input-gain-db", "36",
                     "--event-output", "a.json", "--event", "b.json", "--input-wav", "x.wav", "--live",
                     "--beamformed", "", "--log", "l", "--pcm-output", "p"},
                    p));
  EXPECT_EQ(p.duration_seconds, 2);
  EXPECT_EQ(p.live_chunk_frames, 16000);
  EXPECT_EQ(p.input_gain_db, 36.0);
  EXPECT_EQ(p.event_output_path, "a.json");
  EXPECT_EQ(p.event_path, "b.json");
  EXPECT_EQ(p.input_wav_path, "x.wav");
  EXPECT_TRUE(p.skip_capture);
  EXPECT_TRUE(p.live);
  EXPECT_EQ(p.beamformed_path, "");
  EXPECT_EQ(p.log_path, "l");
  EXPECT_EQ(p.pcm_output_path, "p");

  Options q;
  ASSERT_TRUE(parse({"--event", "b.json", "--event-output", "a.json", "--input-gain-db", "0x1p2",
                     "--skip-capture"},
                    q));
  EXPECT_EQ(q.event_path, "a.json");
  EXPECT_EQ(q.input_gain_db, 4.0);
  EXPECT_TRUE(q.skip_capture);
  EXPECT_EQ(q.input_wav_path, "");
}

// A refused or special command line, run through the real binary.
struct CommandLineCase {
  std::string name;
  std::vector<std::string> args;
  int exit_code;
  std::string err;   // exact standard error
  bool prints_usage; // standard output is exactly the usage text
};

void PrintTo(const CommandLineCase& c, std::ostream* os) { *os << c.name; }

class CommandLine : public testing::TestWithParam<CommandLineCase> {};

TEST_P(CommandLine, ExitStatusMessagesAndNoLog) {
  const CommandLineCase& c = GetParam();
  test::TempDir tmp;
  std::vector<std::string> argv = {test::tool_path()};
  argv.insert(argv.end(), c.args.begin(), c.args.end());
  // A log path that a run would create: usage errors must not touch it.
  const std::string log = tmp.path("log.txt");
  if (c.exit_code != 0) {
    argv.insert(argv.begin() + 1, {"--log", log});
  }
  const test::RunResult r = test::run(argv, {}, tmp.dir.string());
  EXPECT_EQ(r.exit_code, c.exit_code);
  EXPECT_EQ(r.err, c.err);
  if (c.prints_usage) {
    EXPECT_EQ(r.out, usage_for(test::tool_path()));
  }
  EXPECT_FALSE(std::filesystem::exists(log));
  EXPECT_EQ(r.out.find("Sonderlark v1.4.0"), std::string::npos);
}

std::vector<CommandLineCase> command_line_cases() {
  const std::string gain = "--input-gain-db must be finite and between -60 and +36 dB\n";
  return {
      {"Help", {"--help"}, 0, "", true},
      {"ShortHelpAfterOptions", {"--duration", "3", "-h", "--bogus"}, 0, "", true},
      {"UnknownBeforeHelp", {"--bogus", "--help"}, 2, "Unknown argument: --bogus\n", true},
      {"BareWord", {"record"}, 2, "Unknown argument: record\n", true},
      {"EqualsForm", {"--duration=5"}, 2, "Unknown argument: --duration=5\n", true},
      {"MissingValue", {"--device"}, 2, "--device requires a value\n", true},
      {"DurationZero", {"--duration", "0"}, 2, "", true},
      {"DurationNegative", {"--duration", "-3"}, 2, "", true},
      {"DurationHex", {"--duration", "0x10"}, 2, "", true},
      {"LiveDurationNegative", {"--live-duration", "-1"}, 2, "", true},
      {"ChunkTooSmall", {"--live-chunk-frames", "127"}, 2, "", true},
      {"ChunkTooLarge", {"--live-chunk-frames", "16001"}, 2, "", true},
      {"GainTooHigh", {"--input-gain-db", "36.5"}, 2, gain, true},
      {"GainTooLow", {"--input-gain-db", "-60.01"}, 2, gain, true},
      {"GainInf", {"--input-gain-db", "inf"}, 2, gain, true},
      {"GainNan", {"--input-gain-db", "nan"}, 2, gain, true},
      {"DurationNotANumber", {"--duration", "abc"}, 2, "invalid value for --duration: abc\n", true},
      {"DurationOutOfRange", {"--duration", "99999999999"}, 2, "invalid value for --duration: 99999999999\n", true},
      {"GainOverflow", {"--input-gain-db", "1e400"}, 2, "invalid value for --input-gain-db: 1e400\n", true},
      {"GainUnderflow", {"--input-gain-db", "1e-400"}, 2, "invalid value for --input-gain-db: 1e-400\n", true},
      {"ChunkEmpty", {"--live-chunk-frames", ""}, 2, "invalid value for --live-chunk-frames: \n", true},
      {"HelpAsValue", {"--live-duration", "--help"}, 2, "invalid value for --live-duration: --help\n", true},
      {"StopsAtFirstFailure", {"--bogus", "--device"}, 2, "Unknown argument: --bogus\n", true},
  };
}

INSTANTIATE_TEST_SUITE_P(Refusals, CommandLine, testing::ValuesIn(command_line_cases()),
                         [](const auto& info) { return info.param.name; });

}  // namespace
}  // namespace sonderlark
