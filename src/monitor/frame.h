#pragma once

#include <cstdint>
#include <ctime>
#include <deque>
#include <utility>
#include <string>
#include <vector>

#include "dsp/diagnostics.h"
#include "report/live_status.h"

namespace sonderlark {

// A line of a monitor frame and how it should stand out.
enum class LineStyle { kPlain, kTitle, kBanner, kNeedle, kGood, kDim, kAlert };

struct FrameLine {
  std::string text;
  LineStyle style = LineStyle::kPlain;
};

// What the monitor keeps between frames.
struct MonitorMemory {
  std::vector<double> peak_hold_db;  // per channel, the highest level of the last hold period
  std::vector<double> peak_hold_age;  // seconds since each hold mark was set
  double last_frame_time = -1.0;     // steady seconds of the previous frame
  // (steady seconds, chunk count) of the records read over the last few
  // seconds: the chunk rate is taken across them, since the capture
  // delivers its periods in bursts of chunks.
  std::deque<std::pair<double, int64_t>> history;
};

constexpr double kPeakHoldSeconds = 2.0;

// The terminal a frame is drawn for.
struct ScreenSize {
  int cols = 80;
  int rows = 24;
};

// The smallest terminal the compact layout fits, and the smallest for the
// full one (the dial).
constexpr ScreenSize kCompactScreen{40, 12};
constexpr ScreenSize kFullScreen{80, 24};

// One frame of the monitor for a terminal of `screen`: plain text, no line
// wider than the screen. The full layout (dial, meters, PCM and capture
// lines using the whole width) from 80x24; a compact one from 40x12 that
// keeps status, direction, confidence and the meters; below that one line
// saying the terminal is too small. `seconds` is a steady clock reading,
// used for the chunk rate and the peak hold (pass the same value twice and
// nothing is derived).
std::vector<FrameLine> monitor_frame(const std::string& path, RecordState state, const StatusRecord& record,
                                     MonitorMemory& memory, double seconds, ScreenSize screen = kFullScreen);

}  // namespace sonderlark
