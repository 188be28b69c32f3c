#include <gtest/gtest.h>

#include "live/capture.h"
#include "util/process.h"
#include "support.h"

namespace sonderlark {
namespace {

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
