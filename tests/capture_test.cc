#include <gtest/gtest.h>

#include <filesystem>

#include "live/capture.h"
#include "util/process.h"
#include "support.h"

namespace sonderlark {
namespace {

// A stand-in arecord, first on PATH, that records its arguments NUL-separated
// and exits with `code`. For failure injection and argument checks only.
std::string install_stand_in(const test::TempDir& tmp, int code) {
  const std::string bin = tmp.path("bin");
  std::filesystem::create_directories(bin);
  test::write_file(bin + "/arecord", "#!/bin/sh\nprintf '%s\\0' \"$@\" > \"$ARGS_FILE\"\nexit " +
                                         std::to_string(code) + "\n");
  std::filesystem::permissions(bin + "/arecord", std::filesystem::perms::owner_all);
  return bin + ":" + std::getenv("PATH");
}

TEST(OneShotCapture, HostileDeviceAndPathReachArecordUnchanged) {
  test::TempDir tmp;
  const std::string device = "it's a $(touch pwned) `id`\nnext";
  const std::string output = "out dir'$(touch pwned2).wav";
  const test::RunResult r =
      test::run({test::tool_path(), "--device", device, "--output", output, "--duration", "3", "--log", "",
                 "--beamformed", "b.wav", "--event", "e.json"},
                {{"PATH", install_stand_in(tmp, 0)}, {"ARGS_FILE", tmp.path("args")}}, tmp.dir.string());
  const std::string nul(1, '\0');
  EXPECT_EQ(test::read_file(tmp.path("args")), "-D" + nul + device + nul + "-f" + nul + "S32_LE" + nul + "-r" + nul +
                                                   "16000" + nul + "-c" + nul + "4" + nul + "-d" + nul + "3" + nul +
                                                   "-t" + nul + "wav" + nul + output + nul);
  EXPECT_FALSE(std::filesystem::exists(tmp.path("pwned")));
  EXPECT_FALSE(std::filesystem::exists(tmp.path("pwned2")));
  // The stand-in wrote no file, so the reader's error ends the run.
  EXPECT_EQ(r.exit_code, 20);
  EXPECT_NE(r.out.find("\nerror: failed to open WAV: " + output + "\n"), std::string::npos) << r.out;
}

struct ExitCase {
  std::string script;
  int raw_status;
  int exit_code;
};

TEST(StopCapture, DecodesRealChildrenLikeTheShell) {
  const ExitCase cases[] = {
      {"sh -c 'exit 0'", 0, 0},
      {"sh -c 'exit 1'", 256, 1},
      {"sh -c 'exit 255'", 65280, 255},
      {"sh -c 'kill -9 $$'", 9, 137},
      {"sh -c 'kill -PIPE $$'", 13, 141},
      {"no_such_command_here 2>/dev/null", 127 << 8, 127},
  };
  Logger logger;
  test::TempDir tmp;
  for (const ExitCase& c : cases) {
    SCOPED_TRACE(c.script);
    CaptureChild child;
    child.capture_command = c.script;
    child.stderr_path = tmp.path("stderr");
    ASSERT_TRUE(start_capture(child, logger));
    char byte;
    EXPECT_EQ(read_capture(child, &byte, 1, std::nullopt).bytes, 0u);  // the stream ends
    const CaptureStop stop = stop_capture(child);
    EXPECT_EQ(stop.raw_status, c.raw_status);
    EXPECT_EQ(stop.exit_code, c.exit_code);
    EXPECT_FALSE(child.fd.valid());
    EXPECT_EQ(child.pid, -1);
  }
  EXPECT_EQ(decode_exit_code(0x137F), 0x137F);  // a stopped child is reported raw
}
}  // namespace
}  // namespace sonderlark
